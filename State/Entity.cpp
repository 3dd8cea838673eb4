#include "State/Entity.h"

#include <algorithm>

namespace State {

struct ReactorSlot {
    ChangeHandler handler;
    bool deep = false;
    bool active = true;
    bool retired = false;
};

/// Slots are appended, and dropped only while no dispatch is on its way, so that a handler may add and retire
/// reactors of the very entity that is calling it.
struct ReactorList {
    void dispatch(const Change& change, bool own) {
        ++dispatching;
        const std::size_t count = slots.size();
        for (std::size_t i = 0; i < count; ++i) {
            const std::shared_ptr<ReactorSlot> slot = slots[i];
            if (!slot->retired && slot->active && (own || slot->deep)) slot->handler(change);
        }
        --dispatching;
        compact();
    }
    void compact() {
        if (dispatching == 0) std::erase_if(slots, [](const auto& slot) { return slot->retired; });
    }
    std::vector<std::shared_ptr<ReactorSlot>> slots;
    int dispatching = 0;
};

Reactor::Reactor(std::weak_ptr<ReactorList> list, std::shared_ptr<ReactorSlot> slot)
    : list_{std::move(list)}, slot_{std::move(slot)} {}

Reactor& Reactor::operator=(Reactor&& other) noexcept {
    if (this != &other) {
        retire();
        list_ = std::move(other.list_);
        slot_ = std::move(other.slot_);
    }
    return *this;
}

Reactor::~Reactor() { retire(); }

void Reactor::retire() {
    if (!slot_) return;
    slot_->retired = true;
    slot_.reset();
    if (const auto list = list_.lock()) list->compact();
}

void Reactor::hasNotificationActiveIs(bool active) {
    if (slot_) slot_->active = active;
}

Entity::~Entity() = default;

Value Entity::value() const {
    struct Collector : FieldVisitor {
        void field(std::string_view name, std::string_view, Value value) override {
            members.emplace_back(std::string{name}, std::move(value));
        }
        Object members;
    } collector;
    visit(collector);
    return Value{std::move(collector.members)};
}

MaybeProblem Entity::apply(const Value& patch) {
    Tidings now;
    auto problem = apply(patch, now);
    now.tell();
    return problem;
}

MaybeProblem Entity::apply(const Value& patch, Tidings& later) {
    if (auto problem = check(patch)) return problem;
    write(patch, later);
    return std::nullopt;
}

Reactor Entity::react(ChangeHandler handler) const { return subscribe(std::move(handler), false); }
Reactor Entity::watch(ChangeHandler handler) const { return subscribe(std::move(handler), true); }

Reactor Entity::subscribe(ChangeHandler handler, bool deep) const {
    if (!reactors_) reactors_ = std::make_shared<ReactorList>();
    auto slot = std::make_shared<ReactorSlot>();
    slot->handler = std::move(handler);
    slot->deep = deep;
    reactors_->slots.push_back(slot);
    return {reactors_, std::move(slot)};
}

void Entity::changed(const Change& change) const {
    for (const Entity* entity = this; entity != nullptr; entity = entity->parent_) {
        // A handler may drop the last reference to a list; hold it while it dispatches.
        if (const std::shared_ptr<ReactorList> list = entity->reactors_; list && !list->slots.empty()) {
            list->dispatch(change, entity == this);
        }
    }
}

}  // namespace State
