/// Tells SNMP managers of the streams of a running msrpd, as a subagent (AgentX, RFC 2741) of the machine's
/// snmpd.
///
/// Exit codes: 0 stopped by a signal, 2 wrong usage.  A daemon or an snmpd that is not there is waited for.
#include "Control/LogWriter.h"
#include "Control/Socket.h"
#include "Linux/kernel/EpollLoop.h"
#include "Monitor/SrpMib.h"
#include "programs/CommandLine.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <map>
#include <net/if.h>
#include <string>
#include <sys/select.h>
#include <vector>

// Each needs those before it.
// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>
// clang-format on

namespace {

using Monitor::MibCell;
using Monitor::SubIds;

struct Options {
    std::string socket = std::string{Control::defaultSocket} + ".read";
    std::string agentx{"/var/agentx/master"};
};

/// Seconds: how long snmpd should wait for an answer, since we may have to wait for the daemon, and how often
/// it is looked for while it is away.
constexpr int answerPatience = 10;
constexpr int reconnectPause = 5;

/// As the kernel's bridge numbers its ports; 0 for one that is in none.
std::uint32_t bridgePortNumber(const std::string& port) {
    if (port.find('/') != std::string::npos) return 0;
    std::ifstream file{"/sys/class/net/" + port + "/brport/port_no"};
    std::string text;
    return file >> text ? static_cast<std::uint32_t>(std::strtoul(text.c_str(), nullptr, 0)) : 0;
}

/// Where there is no bridge, as the kernel numbers its interfaces: not both, they would meet.
Monitor::PortNumbers portNumbers(const std::map<std::string, bool>& ports) {
    Monitor::PortNumbers numbers;
    for (const auto& [port, enabled] : ports) {
        if (const std::uint32_t number = bridgePortNumber(port); number != 0) numbers.emplace(port, number);
    }
    if (!numbers.empty()) return numbers;
    for (const auto& [port, enabled] : ports) {
        if (const std::uint32_t number = ::if_nametoindex(port.c_str()); number != 0)
            numbers.emplace(port, number);
    }
    return numbers;
}

/// The library tells again and again of an snmpd that is away.
int logged(int, int, void* message, void*) {
    static std::string said;
    std::string text = static_cast<snmp_log_message*>(message)->msg;
    while (!text.empty() && text.back() == '\n') text.pop_back();
    if (text.empty() || text == said) return 0;
    said = text;
    Control::lastWords("msrp-agentx: " + said);
    return 0;
}

/// The tables as the daemon was last seen.
class Tables {
public:
    explicit Tables(const std::string& socket) : mirror_{clock_, socket, Monitor::srpMibRecords()} {}

    const Monitor::MibTables& fresh() {
        const Show::Snapshot* snapshot = mirror_.fresh();
        if (made_ == mirror_.fetches()) return tables_;
        made_ = mirror_.fetches();
        Monitor::PortNumbers numbers;
        if (snapshot != nullptr) {
            numbers = portNumbers(Monitor::srpMibPorts(*snapshot));
        } else if (said_ != mirror_.problem()) {
            Control::lastWords("msrp-agentx: " + mirror_.problem());
        }
        said_ = mirror_.problem();
        tables_ = snapshot != nullptr ? Monitor::srpMib(*snapshot, numbers) : Monitor::MibTables{};
        return tables_;
    }

private:
    Linux::EpollLoop clock_;
    Monitor::Mirror mirror_;
    Monitor::MibTables tables_;
    std::uint64_t made_ = 0;
    std::string said_;
};

void put(netsnmp_variable_list& to, const MibCell& cell) {
    switch (cell.kind) {
        case MibCell::Kind::none:
            break;
        case MibCell::Kind::integer:
            snmp_set_var_typed_integer(&to, ASN_INTEGER, static_cast<long>(cell.number));
            break;
        case MibCell::Kind::gauge:
            snmp_set_var_typed_integer(&to, ASN_UNSIGNED, static_cast<long>(cell.number));
            break;
        case MibCell::Kind::counter64: {
            const counter64 number{cell.number >> 32, cell.number & 0xffff'ffff};
            snmp_set_var_typed_value(&to, ASN_COUNTER64, &number, sizeof number);
            break;
        }
        case MibCell::Kind::octets: {
            std::array<std::uint8_t, 8> octets{};
            for (std::size_t i = 0; i < cell.length; ++i)
                octets[i] = static_cast<std::uint8_t>(cell.number >> 8 * (cell.length - 1U - i));
            snmp_set_var_typed_value(&to, ASN_OCTET_STR, octets.data(), cell.length);
            break;
        }
    }
}

/// The library calls back without a word of ours but this.
int answer(netsnmp_mib_handler*, netsnmp_handler_registration* registration, netsnmp_agent_request_info* info,
           netsnmp_request_info* requests) {
    const Monitor::MibTables& tables = static_cast<Tables*>(registration->my_reg_void)->fresh();
    for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
        if (request->processed != 0) continue;
        netsnmp_variable_list& asked = *request->requestvb;
        const SubIds name{asked.name, asked.name + asked.name_length};
        MibCell cell;
        if (info->mode == MODE_GET || request->inclusive != 0) cell = tables.get(name);
        if (cell.kind != MibCell::Kind::none) {
            put(asked, cell);
        } else if (info->mode == MODE_GET) {
            netsnmp_set_request_error(info, request, SNMP_NOSUCHINSTANCE);
        } else if (const auto next = tables.next(name)) {
            const std::vector<oid> found{next->name.begin(), next->name.end()};
            snmp_set_var_objid(&asked, found.data(), found.size());
            put(asked, next->cell);
        }
    }
    return SNMP_ERR_NOERROR;
}

volatile std::sig_atomic_t stopped = 0;

/// Calls the library until a signal comes, which can come only while it is waited for.
void serve() {
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    for (const int number : {SIGTERM, SIGINT}) {
        sigaddset(&blocked, number);
        std::signal(number, [](int) { stopped = 1; });
    }
    ::sigprocmask(SIG_BLOCK, &blocked, &before);
    while (stopped == 0) {
        int count = 0;
        int forever = 1;
        fd_set descriptors;
        FD_ZERO(&descriptors);
        timeval until{};
        snmp_select_info(&count, &descriptors, &until, &forever);
        const timespec span{until.tv_sec, until.tv_usec * 1000};
        const int ready =
            ::pselect(count, &descriptors, nullptr, nullptr, forever != 0 ? nullptr : &span, &before);
        if (ready > 0) snmp_read(&descriptors);
        if (ready == 0) snmp_timeout();
        run_alarms();
        netsnmp_check_outstanding_agent_requests();
    }
}

ExitCode run(const Options& options) {
    constexpr const char* name = "msrp-agentx";
    Tables tables{options.socket};
    // No files of the library's: neither configuration nor modules nor state.
    ::setenv("MIBS", "", 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_LOAD, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_SAVE, 1);
    netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET, options.agentx.c_str());
    snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, logged, nullptr);
    snmp_enable_calllog();
    netsnmp_enable_subagent();
    init_agent(name);
    // Which sets its own.
    netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_PING_INTERVAL, reconnectPause);
    const std::vector<oid> root{Monitor::srpMibObjects.begin(), Monitor::srpMibObjects.end()};
    netsnmp_handler_registration* registration =
        netsnmp_create_handler_registration(name, answer, root.data(), root.size(), HANDLER_CAN_RONLY);
    registration->my_reg_void = &tables;
    registration->timeout = answerPatience;
    netsnmp_register_handler(registration);
    init_snmp(name);
    serve();
    snmp_shutdown(name);
    return done;
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    Options options;
    Program program{"msrp-agentx",
                    "Tells SNMP managers of a running msrpd (IEEE8021-SRP-MIB), through snmpd"};
    program.text("--socket", "Control socket of the daemon", options.socket)
        .text("--agentx", "Where snmpd listens for subagents: the path of its socket, or tcp:ADDRESS:PORT",
              options.agentx);
    return program.run(argc, argv, [&] { return run(options); });
}
