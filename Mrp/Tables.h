/// The four state tables of MRP (IEEE 802.1Q 10.7.7 to 10.7.10), laid out like the pages of the standard:
/// rows are events, columns are states, in the order of the enumerations.  Stepping is pure; `Participant`
/// applies the cells.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Mrp {

// --- Applicant, 10.7.7 ---------------------------------------------------------------------------

/// First letter: V very anxious (nothing sent), A anxious (one message sent or seen), Q quiet, L leaving.
/// Second letter: A active member, P passive member, O observer, N new.
enum class Applicant : std::uint8_t { VO, VP, VN, AN, AA, QA, LA, AO, QO, AP, QP, LO, same };
constexpr std::array<std::string_view, 12> applicantNames{"VO", "VP", "VN", "AN", "AA", "QA",
                                                          "LA", "AO", "QO", "AP", "QP", "LO"};
enum class ApplicantEvent : std::uint8_t {
    newRequest,  ///< New!
    join,        ///< Join!
    leave,       ///< Lv!
    rNew,
    rJoinIn,
    rIn,
    rJoinMt,  ///< and rMt!
    rLv,      ///< and rLA!, Re-declare!
    periodic,
    tx,
    txLA,
    txLAF,
    // Where the standard's table knows nothing of values that a peer was told before
    newValue,   ///< Join! of another value than was declared
    leaveTold,  ///< Lv! of a value that the peer knows, in VP too
    takeBack,   ///< the peer knows a value that nobody declares any more
    forget,     ///< ends without a word, but for a withdrawal that is on its way
};
constexpr std::array<std::string_view, 16> applicantEventNames{
    "New",      "Join", "Lv",   "rNew",  "rJoinIn",  "rIn",       "rJoinMt",  "rLv",
    "periodic", "tx",   "txLA", "txLAF", "newValue", "leaveTold", "takeBack", "forget"};

/// What a transmit opportunity sends.  With sJ and s the registrar decides between In and Mt; the optional
/// ones are sent only where they are free.
enum class Send : std::uint8_t { none, s, sJ, sN, sL, optionalS, optionalSJ };
struct ApplicantCell {
    Applicant next = Applicant::same;
    Send send = Send::none;
};
using ApplicantRow = std::array<ApplicantCell, 12>;
using ApplicantTable = std::array<ApplicantRow, applicantEventNames.size()>;

/// For a full-duplex link, which has one peer.  Notes 4 and 5 of the table: a JoinIn from the only peer says
/// nothing about ours before we have sent it, and its In proves that it has registered ours.
// clang-format off
constexpr ApplicantTable applicantTable = [] {
    using enum Applicant;
    constexpr ApplicantCell o{};  // no change
    constexpr Send s = Send::s, sJ = Send::sJ, sN = Send::sN, sL = Send::sL, os = Send::optionalS, oJ = Send::optionalSJ;
    return ApplicantTable{{
        //               VO        VP        VN        AN        AA        QA         LA        AO        QO        AP        QP        LO
        /* New!     */ {{{VN},     {VN},     o,        o,        {VN},     {VN},      {VN},     {VN},     {VN},     {VN},     {VN},     {VN}    }},
        /* Join!    */ {{{VP},     o,        o,        o,        o,        o,         {AA},     {AP},     {QP},     o,        o,        {VP}    }},
        /* Lv!      */ {{o,        {VO},     {LA},     {LA},     {LA},     {LA},      o,        o,        o,        {AO},     {QO},     o       }},
        /* rNew!    */ {{o,        o,        o,        o,        o,        o,         o,        o,        o,        o,        o,        o       }},
        /* rJoinIn! */ {{o,        o,        o,        o,        {QA},     o,         o,        {QO},     o,        {QP},     o,        o       }},
        /* rIn!     */ {{o,        o,        o,        o,        {QA},     o,         o,        o,        o,        o,        o,        o       }},
        /* rJoinMt! */ {{o,        o,        o,        o,        o,        {AA},      o,        {VO},     {AO},     {VP},     {AP},     {VO}    }},
        /* rLv!     */ {{{LO},     o,        o,        {VN},     {VP},     {VP},      o,        {LO},     {LO},     {VP},     {VP},     o       }},
        /* periodic!*/ {{o,        o,        o,        o,        o,        {AA},      o,        o,        o,        o,        {AP},     o       }},
        /* tx!      */ {{{same,os},{AA,sJ},  {AN,sN},  {QA,sN},  {QA,sJ},  {same,oJ}, {VO,sL},  {same,os},{same,os},{QA,sJ},  {same,os},{VO,s}  }},
        /* txLA!    */ {{{LO,os},  {AA,sJ},  {AN,sN},  {QA,sN},  {QA,sJ},  {same,sJ}, {LO,os},  {LO,os},  {LO,os},  {QA,sJ},  {QA,sJ},  {same,os}}},
        /* txLAF!   */ {{{LO},     o,        o,        {VN},     {VP},     {VP},      {LO},     {LO},     {LO},     {VP},     {VP},     o       }},
        /* newValue */ {{{VP},     {VP},     {VP},     {VP},     {VP},     {VP},      {VP},     {VP},     {VP},     {VP},     {VP},     {VP}    }},
        /* leaveTold*/ {{o,        {LA},     {LA},     {LA},     {LA},     {LA},      o,        o,        o,        {AO},     {QO},     o       }},
        /* takeBack */ {{{LA},     o,        o,        o,        o,        o,         o,        {LA},     {LA},     o,        o,        {LA}    }},
        /* forget   */ {{o,        {VO},     {VO},     {VO},     {VO},     {VO},      o,        {VO},     {VO},     {VO},     {VO},     {VO}    }},
    }};
}();
// clang-format on
// In VP, txLA! sends the Join at once where the standard lets an In or Mt go first: a new declaration need
// not wait because it meets a LeaveAll.  AN goes to QA after its second New (the standard's note 8 leaves a
// choice).

/// What happens; `next` is never `same`.  An observer of a value that is not registered has nothing to ask
/// for and is deleted instead of coming to LO (10.7.7, the standard leaves it open); otherwise each LeaveAll
/// would make the port echo every value that it ever saw.
constexpr ApplicantCell step(Applicant state, ApplicantEvent event, bool registered = true) {
    ApplicantCell cell = applicantTable[static_cast<std::size_t>(event)][static_cast<std::size_t>(state)];
    if (cell.next == Applicant::LO && !registered) cell.next = Applicant::VO;
    if (cell.next == Applicant::same) cell.next = state;
    return cell;
}

/// True in the states of an attribute that this side declares.
constexpr bool isMember(Applicant state) {
    using enum Applicant;
    return state != VO && state != AO && state != QO && state != LO && state != LA;
}
/// True in the states whose entry asks for a transmit opportunity.
constexpr bool hasToSpeak(Applicant state) {
    using enum Applicant;
    return state == VN || state == AN || state == AA || state == LA || state == VP || state == AP ||
           state == LO;
}

// --- Registrar, 10.7.8 ---------------------------------------------------------------------------

enum class Registrar : std::uint8_t { IN, LV, MT };
constexpr std::array<std::string_view, 3> registrarNames{"IN", "LV", "MT"};
enum class RegistrarEvent : std::uint8_t {
    rJoin,  ///< rNew!, rJoinIn!, rJoinMt!
    rLv,    ///< and rLA!, txLA!, txLAF!
    flush,
    leaveTimer,
};
constexpr std::array<std::string_view, 4> registrarEventNames{"rJoin", "rLv", "Flush", "leavetimer"};
enum class LeaveTimer : std::uint8_t { keep, start, stop };
struct RegistrarCell {
    Registrar next;
    LeaveTimer timer = LeaveTimer::keep;
};

/// The indications follow from the transitions: a join is offered to the application on every way into IN,
/// from LV too (the standard only does so for New), and a leave on the way from LV to MT by the timer.
// clang-format off
constexpr auto registrarTable = [] {
    using enum Registrar;
    using enum LeaveTimer;
    return std::array<std::array<RegistrarCell, registrarNames.size()>, registrarEventNames.size()>{{
        //                   IN           LV          MT
        /* rJoin!      */ {{ {IN},        {IN, stop}, {IN} }},
        /* rLv!        */ {{ {LV, start}, {LV},       {MT} }},
        /* Flush!      */ {{ {MT},        {MT, stop}, {MT} }},
        /* leavetimer! */ {{ {IN},        {MT},       {MT} }},
    }};
}();
// clang-format on
constexpr RegistrarCell step(Registrar state, RegistrarEvent event) {
    return registrarTable[static_cast<std::size_t>(event)][static_cast<std::size_t>(state)];
}

// --- LeaveAll, 10.7.9 ----------------------------------------------------------------------------

enum class LeaveAllState : std::uint8_t { Active, Passive };
enum class LeaveAllEvent : std::uint8_t { tx, rLA, leaveAllTimer };
struct LeaveAllCell {
    LeaveAllState next;
    bool startTimer = false;
    bool sendLeaveAll = false;
};
// clang-format off
constexpr auto leaveAllTable = [] {
    using enum LeaveAllState;
    return std::array<std::array<LeaveAllCell, 2>, 3>{{
        //                      Active                  Passive
        /* tx!            */ {{ {Passive, false, true}, {Passive}       }},
        /* rLA!           */ {{ {Passive, true},        {Passive, true} }},
        /* leavealltimer! */ {{ {Active, true},         {Active, true}  }},
    }};
}();
// clang-format on
constexpr LeaveAllCell step(LeaveAllState state, LeaveAllEvent event) {
    return leaveAllTable[static_cast<std::size_t>(event)][static_cast<std::size_t>(state)];
}

// --- Periodic transmission, 10.7.10 --------------------------------------------------------------

enum class PeriodicState : std::uint8_t { Passive, Active };
enum class PeriodicEvent : std::uint8_t { enabled, disabled, periodicTimer };
struct PeriodicCell {
    PeriodicState next;
    bool startTimer = false;
    bool periodic = false;  ///< give periodic! to every applicant of the port
};
// clang-format off
constexpr auto periodicTable = [] {
    using enum PeriodicState;
    return std::array<std::array<PeriodicCell, 2>, 3>{{
        //                         Passive         Active
        /* periodicEnabled!  */ {{ {Active, true}, {Active}             }},
        /* periodicDisabled! */ {{ {Passive},      {Passive}            }},
        /* periodictimer!    */ {{ {Passive},      {Active, true, true} }},
    }};
}();
// clang-format on
constexpr PeriodicCell step(PeriodicState state, PeriodicEvent event) {
    return periodicTable[static_cast<std::size_t>(event)][static_cast<std::size_t>(state)];
}

}  // namespace Mrp
