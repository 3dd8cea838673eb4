/// The kernel, with faults that this machine's own does not have.
#pragma once

#include "Linux/doctor/Leftovers.h"
#include "Linux/kernel/Netlink.h"
#include "Linux/links/DeviceTable.h"

#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

/// A line as an agent tells it: good news can be told from bad.
inline std::string told(Linux::Tone tone, const std::string& line) {
    return (tone == Linux::Tone::informational ? "good: " : "") + line + '\n';
}

/// What an earlier life left, "p1: queues that shape classes\n"; with `remove` it is taken away.
inline std::string leftovers(Linux::NetlinkChannel& kernel, Runtime::FdLoop& loop,
                             const Linux::OwnMarks& marks = {}, bool remove = false) {
    Linux::DeviceTable devices{loop};
    std::vector<Linux::Leftover> found;
    std::string text = devices.start();
    text += Linux::findLeftovers(kernel, devices, marks, found);
    for (const auto& leftover : found)
        text += leftover.device + ": " + leftover.what + '\n' + (remove ? leftover.remove(kernel) : "");
    return text;
}

class FaultyKernel : public Linux::NetlinkChannel {
public:
    using NetlinkChannel::carryOut;
    Linux::NetlinkAnswer dump(std::uint16_t request, std::span<const std::byte> body,
                              const std::function<void()>& begin,
                              const Linux::NetlinkHandler& each) override {
        return kernel.dump(request, body, begin, each);
    }
    std::vector<Linux::NetlinkAnswer> carryOut(std::span<Linux::NetlinkMessage> requests) override {
        std::vector<Linux::NetlinkAnswer> answers;
        for (Linux::NetlinkMessage& request : requests) {
            ++changes[typeOf(request.bytes())];
            const auto refusal = refuse ? refuse(request.bytes()) : std::nullopt;
            answers.push_back(refusal ? *refusal : kernel.carryOut(std::span{&request, 1}).front());
        }
        return answers;
    }
    Linux::NetlinkAnswer ask(Linux::NetlinkMessage request, const Linux::NetlinkHandler& each) override {
        ++asked;
        const auto refusal = refuse ? refuse(request.bytes()) : std::nullopt;
        return refusal ? *refusal : kernel.ask(std::move(request), each);
    }
    /// Refuses requests of that type with an error from now on; counted by `refused`.
    void refuseAll(std::uint16_t type, int error) {
        refuse = [this, type, error](std::span<const std::byte> request) {
            const bool concerned = typeOf(request) == type;
            refused += concerned ? 1 : 0;
            return concerned ? std::optional{Linux::NetlinkAnswer{error, {}}} : std::nullopt;
        };
    }
    static std::uint16_t typeOf(std::span<const std::byte> request) {
        return reinterpret_cast<const nlmsghdr*>(request.data())->nlmsg_type;
    }

    Linux::NetlinkRequests kernel;
    /// Answers in the kernel's place, or does something on the way to it.
    std::function<std::optional<Linux::NetlinkAnswer>(std::span<const std::byte> request)> refuse;
    std::map<std::uint16_t, int> changes;  ///< that were asked for, by type
    int refused = 0;
    int asked = 0;
};
