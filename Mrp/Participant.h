/// The MRP participant of one port (IEEE 802.1Q 10.7): its attributes with their applicants and registrars,
/// its LeaveAll machine, its leave timers and its transmit opportunities.
///
/// Events come in as calls (frames, requests, timers); what follows from them goes out through `Host`.
/// Indications may call back into the participant, or stop it, so no iterator lives across one.  Attributes
/// that have something to say are queued; an opportunity works through the queue only, unless it sends a
/// LeaveAll.
#pragma once

#include "Mrp/Attribute.h"
#include "Mrp/Inbox.h"
#include "Mrp/LeaveQueue.h"
#include "Mrp/OrderedChunks.h"
#include "Mrp/PduWriter.h"
#include "Mrp/Records.h"
#include "Mrp/TransmitPace.h"
#include "Runtime/Loop.h"
#include "Runtime/Trace.h"

#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <random>
#include <set>
#include <span>
#include <vector>

namespace Mrp {

/// Names an attribute of one port.
struct AttributeRef {
    std::uint8_t typeIndex = 0;  ///< position in the application's types
    std::uint64_t key = 0;
    auto operator<=>(const AttributeRef&) const =
        default;  // NOLINT(modernize-use-nullptr): not about pointers
};

class Participant {
public:
    enum class Outcome : std::uint8_t { accepted, refused, rangeError };

    /// What a participant asks of the engine.  Only the indications may call back.
    class Host {
    public:
        virtual Outcome joinIndication(IntfId intf, const AttributeRef& ref, const AttributeValue& value,
                                       bool isNew) = 0;
        virtual Outcome leaveIndication(IntfId intf, const AttributeRef& ref,
                                        const AttributeValue& value) = 0;
        /// What the indications since the last call cost beyond the ordinary, in events' worth.
        [[nodiscard]] virtual unsigned takeCost() = 0;
        /// A registration of that key has ended, which may make room for one that was refused.
        virtual void registrationEnded(std::uint64_t key) = 0;
        /// What was refused on the port is worth another offer.
        virtual void portOpened(IntfId intf) = 0;
        /// When the oldest frame arrived that the port has not worked off yet.
        [[nodiscard]] virtual std::optional<Runtime::Time> backlogSince(IntfId intf) const = 0;
        /// That attribute is to be offered again, from the loop.
        virtual void offerDue(IntfId intf, const AttributeRef& ref) = 0;
        /// False when this turn of the loop has seen enough of transmissions, and while the port is in the
        /// middle of a received PDU, whose rest may spare it what it would say.
        [[nodiscard]] virtual bool mayTransmit(IntfId intf) = 0;
        /// That many attributes were looked at for a transmission.
        virtual void transmitted(std::size_t attributes) = 0;
        /// Octets that a PDU may have there.
        [[nodiscard]] virtual std::size_t capacity(IntfId intf) const = 0;
        virtual void send(IntfId intf, std::span<const std::uint8_t> pdu) = 0;
        virtual void count(IntfId intf, const MrpCounts& more) = 0;
        virtual void reportFlaw(IntfId intf, const Flaw& flaw) = 0;
        virtual void reportLimit(IntfId intf, std::uint8_t type, bool reached) = 0;

    protected:
        ~Host() = default;
    };

    /// What participants share; all of it must outlive them.
    struct Environment {
        Runtime::Loop& loop;
        const ApplicationInfo& application;
        const MrpConfig& config;
        std::mt19937_64& random;
        const Runtime::Trace& trace;
        Host& host;
    };

    /// Begins: nothing is declared or registered, the LeaveAll timer runs.
    Participant(IntfId intf, const Environment& environment);
    Participant(const Participant&) = delete;
    Participant& operator=(const Participant&) = delete;

    /// Ends everything at once and without indications; later calls do nothing.  The object itself may be the
    /// one that is calling, so it is to be destroyed later.
    void stop();
    [[nodiscard]] bool stopped() const { return stopped_; }

    /// Goes on with a PDU as far as `budget` allows, which it lowers by what it has done: an indication costs
    /// `indicationCost` and what its handler did beyond that, other events 1.  True when the PDU is done.
    ///
    /// Of several joins of one key, of a type that is delivered first, only the last one is indicated: these
    /// decide over all that the port carries, and what a PDU says in between it has taken back itself.
    bool receive(Reception& in, unsigned& budget);

    /// Join! of a value, or New!.  True when that is news: the value was not declared before.
    bool declare(const AttributeRef& ref, const AttributeValue& value, bool asNew = false);
    /// Takes over a registration from an earlier life of the port: the application holds it, and it leaves
    /// when the peer does not answer the LeaveAll that is to follow with it.  Nothing is indicated.
    void seed(const AttributeRef& ref, const AttributeValue& value);
    /// Join! of a value that the port declared in an earlier life: should it be withdrawn before it has been
    /// said again, the peer still hears a Leave.
    void resume(const AttributeRef& ref, const AttributeValue& value);
    /// Lv!
    void withdraw(const AttributeRef& ref);
    /// Forgets declaration and registration at once; nothing is sent or indicated, but for a Leave that was
    /// asked for before.  What was refused stays refused.  What the peer may hold of a type that another one
    /// replaces is remembered until it hears of that one: should this never be said, it is owed a Leave.
    void forget(const AttributeRef& ref);
    /// Forgets the registration without an indication, and says Mt for it.
    void purge(const AttributeRef& ref);
    /// The same for all, with a LeaveAll in place of the Mts.
    void purgeAll();
    /// Offers what is registered to the application once more.
    void offerAgain(const AttributeRef& ref);
    /// Calls `visit` with the name and the state of every attribute, in order; it must change nothing.
    template <class F>
    void eachAttribute(F&& visit) const {
        for (std::uint8_t i = 0; i < typeCount(); ++i) {
            for (const auto [key, attribute] : attributes_[i]) visit(AttributeRef{i, key}, attribute);
        }
    }
    /// For people: timers and totals, and attributes with their states, by "type/key", at most so many.
    [[nodiscard]] State::Value machines() const;
    [[nodiscard]] State::Object attributes(const State::From& from, std::size_t most) const;
    [[nodiscard]] bool registered(const AttributeRef& ref) const;
    /// The application holds the attribute: it accepted it, and will be told when it leaves.
    [[nodiscard]] bool held(const AttributeRef& ref) const;
    [[nodiscard]] bool refused(const AttributeRef& ref) const { return refused_.contains(ref); }
    [[nodiscard]] const std::set<AttributeRef>& refused() const { return refused_; }

    /// Sends a LeaveAll of every type at the next opportunity.
    void leaveAll();
    /// periodic!
    void periodic();
    void requestOpportunity();
    /// Transmits what waits for an opportunity, without waiting for one.
    void flush();

    /// The configured times have changed.
    void leaveTimeChanged();
    void leaveAllTimeChanged() { startLeaveAllTimer(); }

private:
    using Attributes = OrderedChunks<Attribute>;

    /// One thing to say at an opportunity.
    struct Utterance {
        enum class Why : std::uint8_t {
            transition,  ///< the applicant's own transmission, or a silent transition
            purged,      ///< an Mt of a value other than the declared one
            bridge,      ///< fills a gap in a vector
        };
        Why why;
        AttributeRef ref;
        Attribute* attribute;
        std::optional<Event> event;
        std::size_t batchIndex = 0;  ///< position in `batch_` that it comes from
    };

    [[nodiscard]] const AttributeType& type(std::size_t index) const { return env_.application.types[index]; }
    [[nodiscard]] std::uint8_t typeCount() const {
        return static_cast<std::uint8_t>(env_.application.types.size());
    }
    [[nodiscard]] Attribute* find(const AttributeRef& ref) {
        return attributes_[ref.typeIndex].find(ref.key);
    }
    [[nodiscard]] const Attribute* find(const AttributeRef& ref) const {
        return attributes_[ref.typeIndex].find(ref.key);
    }
    /// The attribute, a new one when there is none.
    Attribute& findOrMake(const AttributeRef& ref);
    void eraseIfIdle(const AttributeRef& ref, const Attribute& attribute);
    /// The same for every attribute of a type.
    void eraseIdle(std::uint8_t typeIndex);

    [[nodiscard]] std::uint64_t keyOf(const DecodedEvent& event) const;
    void receiveLeaveAll(std::uint8_t typeIndex);
    void beginReception(const DecodedPdu& pdu);
    /// What an event gives the application to decide.
    enum class Asks : std::uint8_t { nothing, again, news, isNew };
    Asks receiveEvent(const DecodedEvent& in);
    /// Offers what the messages that are delivered first came to.
    unsigned offerFirst(Reception& in);
    void offer(const AttributeRef& ref, bool news, bool isNew = false);
    /// The attribute that declares the same key by the other type, or null.
    [[nodiscard]] Attribute* replaced(const AttributeRef& ref) {
        const AttributeRef other{replaces_[ref.typeIndex], ref.key};
        return other.typeIndex == ref.typeIndex ? nullptr : find(other);
    }
    /// The peer has turned to `ref`: what it declared by the other type is no longer worth an offer.
    void dropReplaced(const AttributeRef& ref);
    /// Says Lv of what is declared no more and the peer may hold.
    void owe(const AttributeRef& ref);
    [[nodiscard]] bool mayRegister(std::uint8_t typeIndex);

    void applicantEvent(const AttributeRef& ref, Attribute& attribute, ApplicantEvent event);
    void registrarEvent(const AttributeRef& ref, Attribute& attribute, RegistrarEvent event);
    /// Flush! without its indication.
    void unregister(const AttributeRef& ref, Attribute& attribute);

    [[nodiscard]] Runtime::Duration joinTime() const {
        return std::chrono::milliseconds{env_.config.joinTime()};
    }
    [[nodiscard]] bool leaveRuns(const LeaveQueue::Entry& entry);
    void leaveTimerFired();
    /// True when a LeaveAll is to be sent now.
    bool leaveAllEvent(LeaveAllEvent event);
    void startLeaveAllTimer();

    /// How long what `why` made of an applicant may wait for an opportunity.
    [[nodiscard]] Runtime::Duration patience(Applicant state, ApplicantEvent why) const;
    void queue(const AttributeRef& ref, Attribute& attribute, Runtime::Duration within);
    void requestOpportunity(Runtime::Duration within);
    void opportunity();
    /// Sends at most `maxPdus` of what is queued; true when anything was sent.
    bool transmit(std::size_t maxPdus);
    void takeBatch();
    [[nodiscard]] std::vector<Utterance> planBatch();
    /// A LeaveAll: all registrations begin to run out at once, and then the applicants have their say, some
    /// thousands in each piece.
    void beginLeaveAll();
    /// One piece; true when anything was sent.
    bool continueLeaveAll();
    [[nodiscard]] std::vector<Utterance> planLeaveAll();
    /// Adds what lies between the last utterance of the plan and that of the batch, if it fills the gap.  All
    /// of it belongs to the latter: what has been said before is done, however full the PDU.
    void bridge(std::vector<Utterance>& plan, std::size_t batchIndex, Attributes::iterator from,
                Attributes::iterator to) const;
    /// Hands PDUs to the port; tells how many utterances of the plan they carry.
    std::size_t sendPlan(const std::vector<Utterance>& plan, bool withLeaveAll, std::size_t maxPdus);
    void said(const Utterance& utterance, ApplicantEvent why);
    void publish();

    IntfId intf_;
    Environment env_;
    bool stopped_ = false;
    Runtime::Duration leaveTime_;  ///< with which `leaves_` was filled

    std::array<Attributes, maxTypes> attributes_;
    std::array<std::uint8_t, maxTypes> replaces_{};   ///< by type; itself where there is none
    std::array<std::size_t, maxTypes> registered_{};  ///< registrars that are not MT
    std::bitset<maxTypes> limitReached_;
    std::set<AttributeRef> refused_;

    std::vector<AttributeRef> pending_;  ///< queued since the batch was taken
    std::vector<AttributeRef>
        batch_;  ///< sorted, and served to its end before the next one is taken: nobody starves
    TransmitPace pace_;
    LeaveQueue leaves_;
    std::uint32_t leaveSequence_ = 0;
    LeaveAllState leaveAll_ = LeaveAllState::Passive;
    std::optional<AttributeRef> leaveAllAt_;  ///< where the LeaveAll under way goes on
    bool leaveAllHeaderDue_ = false;          ///< its first PDU is yet to be sent
    std::size_t leaveAllPdus_ = 0;            ///< that it may still send
    MrpCounts counts_;                        ///< since they were last published

    Runtime::Timer opportunityTimer_;
    Runtime::Timer leaveTimer_;
    Runtime::Timer leaveAllTimer_;
};

}  // namespace Mrp
