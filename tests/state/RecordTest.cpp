#include "State/ChangeFeed.h"
#include "State/Database.h"
#include "State/Record.h"
#include "State/Walk.h"

#include <gtest/gtest.h>
#include <memory>
#include <tuple>
#include <vector>

namespace State {
namespace {

enum class Colour { red, green };
constexpr auto colourNames =
    std::to_array<EnumName<Colour>>({{Colour::red, "red"}, {Colour::green, "green"}});
constexpr const auto& enumNames(Colour) { return colourNames; }

class Leaf : public Record<Leaf> {
public:
    static constexpr std::string_view type = "Test::Leaf";
    explicit Leaf(std::uint16_t) {}
    [[nodiscard]] Colour colour() const { return colour_; }
    void colourIs(Colour v) { assign(colour_, v, "colour"); }
    template <class F>
    static constexpr void fields(F&& each) {
        each(scalar("colour", &Leaf::colour_));
    }

private:
    Colour colour_ = Colour::red;
};

class Root : public Record<Root> {
public:
    static constexpr std::string_view type = "Test::Root";
    [[nodiscard]] std::uint8_t small() const { return small_; }
    void smallIs(std::uint8_t v) { assign(small_, v, "small"); }
    void flagIs(std::uint16_t k, bool v) { setEntry(flag_, k, v, "flag"); }
    [[nodiscard]] const FlatMap<std::uint16_t, bool>& flag() const { return flag_; }
    std::shared_ptr<Leaf> leafIs(std::uint16_t k) { return makeChild(leaf_, k, "leaf"); }
    void leafDel(std::uint16_t k) { delChild(leaf_, k, "leaf"); }
    [[nodiscard]] const Collection<std::uint16_t, Leaf>& leaf() const { return leaf_; }
    template <class F>
    static constexpr void fields(F&& each) {
        each(scalar("small", &Root::small_, std::uint8_t{0}, std::uint8_t{7}));
        each(map("flag", &Root::flag_));
        each(collection("leaf", &Root::leaf_));
        each(derived<Root>("twice", [](const Root& r) { return Value{std::uint64_t{r.small_} * 2}; }));
    }

private:
    std::uint8_t small_ = 0;
    FlatMap<std::uint16_t, bool> flag_;
    Collection<std::uint16_t, Leaf> leaf_;
};

TEST(Record, TellsEachChangeOnceAndNoChangeNever) {
    Root root;
    std::vector<std::string> told;
    const auto reactor = root.react([&](const Change& change) {
        const auto* key = change.key<std::uint16_t>();
        told.push_back(std::string{change.field} + (key != nullptr ? std::to_string(*key) : ""));
    });
    root.smallIs(0);
    root.smallIs(3);
    root.flagIs(9, false);
    root.flagIs(9, false);
    const auto leaf = root.leafIs(4);
    root.leafIs(4);
    leaf->colourIs(Colour::green);  // another record's field
    root.leafDel(4);
    root.leafDel(4);
    EXPECT_EQ(told, (std::vector<std::string>{"small", "flag9", "leaf4", "leaf4"}));
}

TEST(Walk, GoesOnByKeyThroughWhatIsThereWhateverComesAndGoes) {
    using Keys = std::vector<std::uint16_t>;
    const auto root = std::make_shared<Root>();
    for (const std::uint16_t key : Keys{1, 3, 5, 9}) root->leafIs(key);
    std::string told;
    const auto step = [&told](Walk& walk) {
        const auto piece = walk.next();
        if (piece) told += piece->kind == Piece::Kind::end ? "end " : piece->name + ' ';
        return piece.has_value();
    };
    auto walk = *Walk::at(root, "");
    for (int i = 0; i < 6; ++i) step(walk);
    EXPECT_EQ(std::exchange(told, {}), " small flag leaf 1 3 ");
    Walk copy = walk;
    for (const std::uint16_t gone : Keys{1, 3, 5}) root->leafDel(gone);
    for (const std::uint16_t come : Keys{2, 7}) root->leafIs(come);
    while (step(walk)) {
    }
    EXPECT_EQ(std::exchange(told, {}), "7 9 end twice end ");
    while (step(copy)) {
    }
    EXPECT_EQ(std::exchange(told, {}), "7 9 end twice end ");
    for (const char* part : {"leaf", "leaf/7", "leaf/7/colour", "small"}) {
        auto some = *Walk::at(root, part);
        while (step(some)) {
        }
        told += '|';
    }
    EXPECT_EQ(told, "leaf 2 7 9 end | colour end | | |");
    EXPECT_FALSE(Walk::at(root, "leaf/8").has_value());
}

TEST(Record, ReactorsMayEndThemselvesAndOthersWhileTheyRun) {
    Root root;
    int second = 0;
    Reactor first;
    Reactor other = root.react([&](const Change&) { ++second; });
    Reactor last;
    first = root.react([&](const Change&) {
        first = Reactor{};
        other = Reactor{};
        last = root.react([&](const Change&) { second += 10; });
    });
    // The new one hears the next change only.
    for (const int expected : {1, 11, 11}) {
        root.smallIs(static_cast<std::uint8_t>(root.small() + 1));
        EXPECT_EQ(second, expected);
        last.hasNotificationActiveIs(expected == 1);
    }
}

TEST(Record, PatchesAreTakenWholeOrNotAtAll) {
    const auto of = [](const char* key, Value value) { return Value{Object{{key, std::move(value)}}}; };
    const auto number = [](std::uint64_t n) { return Value{n}; };
    Root root;
    const Object flags{{"1", Value{true}}, {"2", Value{true}}};
    const Object good{
        {"small", number(7)}, {"flag", Value{flags}}, {"leaf", of("5", of("colour", Value{"green"}))}};
    ASSERT_FALSE(root.apply(Value{good}).has_value());
    EXPECT_EQ(root.leaf().get(5)->colour(), Colour::green);
    ASSERT_FALSE(root.apply(of("flag", of("1", Value{}))).has_value());
    EXPECT_EQ(root.flag().size(), 1U);

    const Value before = root.value();
    for (const auto& [field, value, text] : std::vector<std::tuple<const char*, Value, std::string>>{
             {"small", number(8), "small: 8 is not from 0 to 7"},
             {"small", Value{"x"}, "small: \"x\" is not a whole number from 0 to 255"},
             {"nothing", Value{true}, "no field \"nothing\" in Test::Root"},
             {"flag", of("x", Value{true}), "flag: \"x\" is not a whole number from 0 to 65535"},
             {"flag", of("3", Value{"x"}), "flag/3: \"x\" is not true or false"},
             {"leaf", of("6", of("colour", Value{"blue"})),
              "leaf/6/colour: \"blue\" is not one of \"red\" \"green\""},
             {"twice", number(2), "twice: cannot be written"},
         }) {
        const auto problem = root.apply(Value{Object{{"flag", of("9", Value{true})}, {field, value}}});
        ASSERT_TRUE(problem.has_value()) << text;
        EXPECT_EQ(problem->text(), text);
        EXPECT_EQ(root.value(), before);
    }
}

TEST(Record, FeedsCoalesceAndEndInTime) {
    Root root;
    std::vector<std::function<void()>> deferred;
    int notices = 0;
    auto feed = std::make_unique<ChangeFeed>(
        root, [&](std::function<void()> task) { deferred.push_back(std::move(task)); }, [&] { ++notices; });
    const auto leaf = root.leafIs(1);
    leaf->colourIs(Colour::green);
    root.smallIs(2);
    ASSERT_EQ(deferred.size(), 1U);
    deferred[0]();
    EXPECT_EQ(notices, 1);
    leaf->colourIs(Colour::red);
    ASSERT_EQ(deferred.size(), 2U);
    feed.reset();
    deferred[1]();
    EXPECT_EQ(notices, 1);
    root.leafDel(1);
    leaf->colourIs(Colour::green);  // outlives its place in the tree
}

TEST(Database, ResolvesPathsAndKeepsTypes) {
    Database database;
    const auto root = database.entityIs<Root>("a/b");
    EXPECT_EQ(database.entityIs<Root>("a/b"), root);
    EXPECT_EQ(database.entityIs("a/b", "Test::Other"), nullptr);
    EXPECT_EQ(database.resolve("a/b/leaf/1"),
              (std::pair<std::shared_ptr<Entity>, std::string>{root, "leaf/1"}));
    EXPECT_EQ(database.resolve("a/bc").first, nullptr);
}

}  // namespace
}  // namespace State
