/// msrp-bench [options of the benchmark library]: exit code 1 when a benchmark reports an error.
#include <benchmark/benchmark.h>
#include <memory>

namespace {

/// Reports as usual, and remembers errors.
class Reporter : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context& context) override { return usual_->ReportContext(context); }
    void ReportRuns(const std::vector<Run>& runs) override {
        // What this machine does not allow is no fault.
        for (const Run& run : runs)
            failed = failed || (run.error_occurred && !run.error_message.starts_with("skipped"));
        usual_->ReportRuns(runs);
    }
    void Finalize() override { usual_->Finalize(); }
    bool failed = false;

private:
    const std::unique_ptr<BenchmarkReporter> usual_{benchmark::CreateDefaultDisplayReporter()};
};

}  // namespace

int main(int count, char** arguments) {
    benchmark::Initialize(&count, arguments);
    if (benchmark::ReportUnrecognizedArguments(count, arguments)) return 2;
    Reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return reporter.failed ? 1 : 0;
}
