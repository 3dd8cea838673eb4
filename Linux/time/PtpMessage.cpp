#include "Linux/time/PtpMessage.h"

#include "Runtime/BigEndian.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace Linux {

namespace {

constexpr std::uint8_t managementType = 0xD;
constexpr std::size_t headerLength = 54;
constexpr std::size_t lengthAt = 2;
constexpr std::size_t sourceAt = 20;  // clock identity of 8 octets and port number of 2
constexpr std::size_t sequenceAt = 30;
constexpr std::size_t controlAt = 32;
constexpr std::size_t targetAt = 34;
constexpr std::size_t actionAt = 46;
constexpr std::size_t tlvAt = 48;  // type, length, managementId of 2 octets each
constexpr std::uint8_t actionGet = 0;
constexpr std::uint8_t actionSet = 1;
constexpr std::uint8_t actionResponse = 2;
constexpr std::uint16_t tlvManagement = 1;

std::vector<std::uint8_t> request(PtpData what, PtpAsker asker, std::uint16_t sequence, std::uint8_t action,
                                  std::span<const std::uint8_t> data) {
    std::vector<std::uint8_t> out(headerLength + data.size());
    const std::span all{out};
    const auto put = [&](std::size_t at, std::uint64_t value) {
        Runtime::bigEndianIs(all.subspan(at, 2), value);
    };
    out[0] = static_cast<std::uint8_t>(asker.transport << 4 | managementType);
    out[1] = 2;
    put(lengthAt, out.size());
    put(sourceAt + 8, asker.number);
    put(sequenceAt, sequence);
    out[controlAt] = 4;
    out[controlAt + 1] = 0x7F;
    std::fill_n(out.begin() + targetAt, 10, std::uint8_t{0xFF});
    out[actionAt] = action;
    put(tlvAt, tlvManagement);
    put(tlvAt + 2, 2 + data.size());
    put(tlvAt + 4, static_cast<std::uint16_t>(what));
    std::ranges::copy(data, all.subspan(headerLength).begin());
    return out;
}

}  // namespace

std::vector<std::uint8_t> ptpGet(PtpData what, PtpAsker asker, std::uint16_t sequence) {
    return request(what, asker, sequence, actionGet, {});
}

std::vector<std::uint8_t> ptpSubscribe(PtpAsker asker, std::uint16_t sequence, std::uint16_t seconds) {
    std::array<std::uint8_t, 2 + 64> data{};
    Runtime::bigEndianIs(std::span{data}.first(2), seconds);
    data[2] = 1;  // states of ports
    return request(PtpData::events, asker, sequence, actionSet, data);
}

std::optional<PtpAnswer> decodePtp(std::span<const std::uint8_t> message) {
    const auto number = [&](std::size_t at, std::size_t octets) {
        return Runtime::bigEndian(message.subspan(at, octets));
    };
    if (message.size() < headerLength || (message[0] & 0xFU) != managementType ||
        message[actionAt] != actionResponse || number(tlvAt, 2) != tlvManagement)
        return std::nullopt;
    const std::uint64_t length = number(tlvAt + 2, 2);
    if (length < 2 || headerLength - 2 + length > message.size()) return std::nullopt;
    const auto data = message.subspan(headerLength, length - 2);
    PtpAnswer answer;
    answer.port = static_cast<std::uint16_t>(number(sourceAt + 8, 2));
    switch (static_cast<PtpData>(number(tlvAt + 4, 2))) {
        case PtpData::capable:
            if (data.size() < 8) return std::nullopt;
            answer.capable = Runtime::bigEndian(data.subspan(4, 4)) != 0;
            return answer;
        case PtpData::portState:
            if (data.size() < 11) return std::nullopt;
            answer.state = data[10];
            return answer;
        case PtpData::interface: {
            // Port identity, state, time stamping, then the name with its length.
            if (data.size() < 13 || data.size() < 13U + data[12]) return std::nullopt;
            const auto name = data.subspan(13, data[12]);
            answer.interface.emplace(name.begin(), name.end());
            return answer;
        }
        default:
            return std::nullopt;
    }
}

std::string ptpStateName(std::uint8_t state) {
    constexpr std::array<std::string_view, 10> names{"unknown",      "initializing", "faulty", "disabled",
                                                     "listening",    "pre-master",   "master", "passive",
                                                     "uncalibrated", "slave"};
    return std::string{names[state < names.size() ? state : 0]};
}

bool ptpStateRuns(std::uint8_t state) { return state > 3; }

}  // namespace Linux
