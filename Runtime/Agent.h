/// The frame in which an agent of the switch runs: who makes it, who calls it when, and what it may use.
///
/// Life of an agent: a factory makes it, `start` calls `doInit` (local entities, mounts asked for), the
/// mounts are made and `doMountsComplete` tells how that went, `stop` calls `doCleanup`.  All calls come from
/// the loop's thread.
#pragma once

#include "Runtime/EntityManager.h"
#include "Runtime/Loop.h"
#include "Runtime/RingLog.h"
#include "Runtime/SystemLog.h"
#include "Runtime/Trace.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace Runtime {

/// What the platform lends an agent; everything must outlive it.
struct AgentEnvironment {
    State::Database& database;
    Loop& loop;
    const SystemLog& systemLog;
    const Trace& trace;
    RingLog& ringLog;
    /// Whether `doInit` may open the ring log's file; simulations keep none.
    bool ringLogFile = true;
    /// Start of all random intervals.
    std::uint64_t seed = 1;
    /// How much an agent may do of long work in one turn of the loop; 0: what it finds right.
    unsigned unitsPerTurn = 0;
};

class Agent {
public:
    Agent(std::string name, AgentEnvironment environment)
        : name_{std::move(name)}, environment_{environment}, entityManager_{environment.database} {}
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;
    virtual ~Agent() = default;

    [[nodiscard]] const std::string& name() const { return name_; }

    /// Initialises the agent and makes its mounts.
    void start();
    /// Cleans the agent up; it can not be started again.
    void stop();

protected:
    virtual void doInit() = 0;
    virtual void doMountsComplete(MountStatus status) = 0;
    virtual void doCleanup() = 0;

    [[nodiscard]] EntityManager& entityManager() { return entityManager_; }
    [[nodiscard]] const AgentEnvironment& environment() const { return environment_; }

private:
    std::string name_;
    AgentEnvironment environment_;
    EntityManager entityManager_;
    bool started_ = false;
};

/// Makes an agent of one kind.
using AgentFactory = std::function<std::unique_ptr<Agent>(AgentEnvironment)>;

}  // namespace Runtime
