/// Asks a ptp4l process of this machine which ports keep common time with their neighbours, and puts that on
/// record.
///
/// Asked once a second over its management socket; new states of ports are told by it at once.  A port is
/// capable while its clock runs and asCapable was true in the latest answer, which is believed for five
/// seconds.
#pragma once

#include "Linux/time/PtpMessage.h"
#include "Runtime/FileDescriptor.h"
#include "Runtime/Loop.h"
#include "Switch/Time.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>

namespace Linux {

class TimeAgent {
public:
    /// `said` takes a line when ptp4l begins or ceases to answer; true: it does.
    using Said = std::function<void(bool good, const std::string& line)>;
    struct Pace {
        Runtime::Duration period = std::chrono::seconds{1};
        Runtime::Duration believed = std::chrono::seconds{5};  ///< an answer
    };

    /// The loop must outlive it; `own` is the path of the socket that answers come to.  Empty: one without a
    /// path, which only a ptp4l in the same network namespace can answer to.
    TimeAgent(Runtime::FdLoop& loop, std::shared_ptr<Switch::TimeStatus> status, Said said, std::string own);
    TimeAgent(const TimeAgent&) = delete;
    TimeAgent& operator=(const TimeAgent&) = delete;
    ~TimeAgent();

    /// Follows the ptp4l with that socket.  Empty on success, else why nothing can be asked from here.
    std::string start(const std::string& server, Pace pace);
    std::string start(const std::string& server) { return start(server, Pace{}); }

private:
    struct Port {
        std::string interface;
        std::optional<bool> capable;
        std::optional<std::uint8_t> state;
        Runtime::Time heard{};  ///< that it is capable or not
    };

    void ask();
    void hear();
    bool send(const std::vector<std::uint8_t>& message);
    /// Whether that is the socket that was asked.
    bool isServer(std::optional<uid_t> user, const std::string& path);
    void take(const PtpAnswer& answer);
    void publish();

    Runtime::FdLoop& loop_;
    const std::shared_ptr<Switch::TimeStatus> status_;
    const Said said_;
    const std::string own_;
    std::string server_;
    std::string serverName_;  ///< as it calls itself
    Runtime::FileDescriptor fd_;
    Runtime::FdLoop::Watch watch_;
    Runtime::Timer next_;
    Pace pace_;
    PtpAsker asker_;
    std::uint16_t sequence_ = 0;
    unsigned rounds_ = 0;
    std::map<std::uint16_t, Port> ports_;
    Runtime::Time heard_{};
    std::optional<bool> answers_;  ///< as was said last
};

}  // namespace Linux
