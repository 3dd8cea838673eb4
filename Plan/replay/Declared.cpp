#include "Plan/replay/Declared.h"

#include "Runtime/Text.h"
#include "Show/FailureCodes.h"
#include "Show/PortFacts.h"
#include "Show/StreamReport.h"

#include <algorithm>
#include <array>
#include <span>
#include <utility>

namespace Plan {

using Runtime::concat;

namespace {

const Mrp::AttributeType& typeOf(const Mrp::DecodedEvent& event) {
    return Msrp::application().types[event.typeIndex];
}

bool isTalker(std::uint8_t type) {
    return type == Msrp::typeTalkerAdvertise || type == Msrp::typeTalkerFailed;
}

/// What a talker says of its stream, field by field.
std::array<std::pair<const char*, std::string>, 6> talkerFields(const Declaration& declaration) {
    const Msrp::MsrpTalkerAdvertiseAttribute t{declaration.value.octets};
    return {{{"destination", t.macDa().text()},
             {"VLAN", std::to_string(t.vlanId())},
             {"frame size", std::to_string(t.maxFrameSize())},
             {"frames", std::to_string(t.maxIntervalFrames())},
             {"priority", std::to_string(t.dataFramePriority())},
             {"rank", std::to_string(t.rank())}}};
}

}  // namespace

AttributeName nameOf(const Mrp::DecodedEvent& event) {
    const Mrp::AttributeType& type = typeOf(event);
    return {isTalker(type.type) ? Msrp::typeTalkerAdvertise : type.type,
            type.key(std::span{event.value.octets}.first(type.valueLength))};
}

Declaration declarationOf(const Mrp::DecodedEvent& event) {
    Declaration out{typeOf(event).type, event.value};
    if (isTalker(out.type)) {
        constexpr auto latency = 21;
        constexpr auto failureCode = 33;
        std::fill(out.value.octets.begin() + latency, out.value.octets.begin() + failureCode,
                  std::uint8_t{0});
    }
    return out;
}

std::string nameText(const AttributeName& name) {
    if (name.kind == Msrp::typeDomain)
        return concat("class ", Show::classLetter(Msrp::SrClassId{static_cast<std::uint8_t>(name.key)}),
                      " domain");
    return concat("stream ", Show::streamName(name.key),
                  name.kind == Msrp::typeListener ? " listener" : " talker");
}

std::string declarationText(const Declaration* declaration) {
    if (declaration == nullptr) return "nothing";
    const auto& octets = declaration->value.octets;
    switch (declaration->type) {
        case Msrp::typeTalkerAdvertise:
            return "Talker Advertise";
        case Msrp::typeTalkerFailed: {
            const auto code = Msrp::MsrpTalkerFailedAttribute{octets}.failureCode();
            return concat("Talker Failed code ", Msrp::number(code), " (", Show::codeText(Msrp::number(code)),
                          ')');
        }
        case Msrp::typeListener:
            return concat("Listener ", Msrp::stateName(Msrp::ListenerState{declaration->value.declaration}));
        default: {
            const Msrp::MsrpDomainAttribute domain{octets};
            return concat("Domain priority ", Msrp::number(domain.srClassPriority()), " VLAN ",
                          domain.srClassVid());
        }
    }
}

std::pair<std::string, std::string> differenceText(const Declaration* one, const Declaration* other) {
    std::pair<std::string, std::string> texts{declarationText(one), declarationText(other)};
    if (one == nullptr || other == nullptr || !isTalker(one->type) || !isTalker(other->type)) return texts;
    const auto ones = talkerFields(*one);
    const auto others = talkerFields(*other);
    for (std::size_t i = 0; i < ones.size(); ++i) {
        if (ones[i].second == others[i].second) continue;
        texts.first += concat(", ", ones[i].first, ' ', ones[i].second);
        texts.second += concat(", ", others[i].first, ' ', others[i].second);
    }
    return texts;
}

void Declared::take(const Mrp::DecodedPdu& pdu, Runtime::Time now, const Changed& changed) {
    for (const Mrp::DecodedEvent& event : pdu.events) {
        const bool declares = Mrp::declares(event.event);
        if (!declares && event.event != Mrp::Event::Lv) continue;
        const AttributeName name = nameOf(event);
        const auto at = entries_.find(name);
        if (!declares) {
            // Of a type that was replaced it says nothing new.
            if (at == entries_.end() || at->second.declaration.type != typeOf(event).type) continue;
            entries_.erase(at);
            changed(name);
            continue;
        }
        Entry entry{declarationOf(event), now};
        if (at == entries_.end()) {
            if (entries_.size() == most) {
                ++beyond_;
                continue;
            }
            entries_.emplace(name, entry);
            changed(name);
        } else {
            const bool other = at->second.declaration != entry.declaration;
            at->second = entry;
            if (other) changed(name);
        }
    }
}

void Declared::age(Runtime::Time leaveAll, const std::bitset<Mrp::maxTypes>& types, const Changed& changed) {
    for (auto at = entries_.begin(); at != entries_.end();) {
        const bool kept = at->second.said >= leaveAll || !types.test(at->second.declaration.type - 1U);
        if (kept) {
            ++at;
            continue;
        }
        const AttributeName name = at->first;
        at = entries_.erase(at);
        changed(name);
    }
}

const Declaration* Declared::find(const AttributeName& name) const {
    const auto at = entries_.find(name);
    return at == entries_.end() ? nullptr : &at->second.declaration;
}

}  // namespace Plan
