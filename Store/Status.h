/// "redundancy": how the store and the role are.
#pragma once

#include "State/Record.h"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace Store {

enum class Role : std::uint8_t { standby, active };
constexpr auto roleNames =
    std::to_array<State::EnumName<Role>>({{Role::standby, "standby"}, {Role::active, "active"}});
constexpr const auto& enumNames(Role) { return roleNames; }

class Status : public State::Record<Status> {
public:
    static constexpr std::string_view type = "Store::Status";

    [[nodiscard]] Role role() const { return role_; }
    void roleIs(Role v) { assign(role_, v, "role"); }
    /// The number of the last change of role that is known.
    void fenceIs(std::uint64_t v) { assign(fence_, v, "fence"); }
    /// Who this is, for people.
    void nameIs(const std::string& v) { assign(name_, v, "name"); }
    /// Who acts; empty: nobody that is known.
    void holderIs(const std::string& v) { assign(holder_, v, "holder"); }
    [[nodiscard]] const std::string& holder() const { return holder_; }
    /// Who else is there, and whether it could take over.
    void agentIs(const std::string& name, bool ready) { setEntry(agent_, name, ready, "agent"); }
    void agentDel(const std::string& name) { delEntry(agent_, name, "agent"); }
    [[nodiscard]] const State::FlatMap<std::string, bool>& agent() const { return agent_; }
    /// Of the store; empty: none.
    void serverIs(const std::string& v) { assign(server_, v, "server"); }
    [[nodiscard]] const std::string& server() const { return server_; }
    /// Why the store cannot be used; empty while it can.
    void problemIs(const std::string& v) { assign(problem_, v, "problem"); }
    [[nodiscard]] const std::string& problem() const { return problem_; }
    /// What is here is in the store, or, on standby, what is in the store is here.
    void completeIs(bool v) { assign(complete_, v, "complete"); }
    [[nodiscard]] bool complete() const { return complete_; }
    /// Records that wait to be written.
    void backlogIs(std::uint64_t v) { assign(backlog_, v, "backlog"); }
    void batchDone(std::uint64_t records) {
        assign(batches_, batches_ + 1, "batches");
        assign(records_, records_ + records, "records");
    }
    /// How long the store took for its last answer, seconds.
    void answerTimeIs(double v) { assign(answerTime_, v, "answerTime"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("role", &Status::role_));
        each(State::scalar("name", &Status::name_));
        each(State::scalar("holder", &Status::holder_));
        each(State::scalar("fence", &Status::fence_));
        each(State::map("agent", &Status::agent_));
        each(State::scalar("server", &Status::server_));
        each(State::scalar("problem", &Status::problem_));
        each(State::scalar("complete", &Status::complete_));
        each(State::scalar("backlog", &Status::backlog_));
        each(State::scalar("batches", &Status::batches_));
        each(State::scalar("records", &Status::records_));
        each(State::scalar("answerTime", &Status::answerTime_));
    }

private:
    Role role_ = Role::standby;
    std::string name_;
    std::string holder_;
    std::uint64_t fence_ = 0;
    State::FlatMap<std::string, bool> agent_;  ///< by name, whether it is ready
    std::string server_;
    std::string problem_;
    bool complete_ = false;
    std::uint64_t backlog_ = 0;
    std::uint64_t batches_ = 0;
    std::uint64_t records_ = 0;
    double answerTime_ = 0.0;
};

}  // namespace Store

// Made once, in the source file beside this header.
extern template class State::Record<Store::Status>;
