#include "State/ChangeFeed.h"
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

struct Leaf : Record<Leaf> {
    static constexpr std::string_view type = "Test::Leaf";
    explicit Leaf(std::uint16_t) {}
    void colourIs(Colour v) { assign(colour, v, "colour"); }
    template <class F>
    static constexpr void fields(F&& each) {
        each(scalar("colour", &Leaf::colour));
    }
    Colour colour = Colour::red;
};

struct Root : Record<Root> {
    static constexpr std::string_view type = "Test::Root";
    void smallIs(std::uint8_t v) { assign(small, v, "small"); }
    void flagIs(std::uint16_t k, bool v) { setEntry(flag, k, v, "flag"); }
    std::shared_ptr<Leaf> leafIs(std::uint16_t k) { return makeChild(leaf, k, "leaf"); }
    void leafDel(std::uint16_t k) { delChild(leaf, k, "leaf"); }
    template <class F>
    static constexpr void fields(F&& each) {
        each(scalar("small", &Root::small, std::uint8_t{0}, std::uint8_t{7}));
        each(map("flag", &Root::flag));
        each(collection("leaf", &Root::leaf));
        each(derived<Root>("twice", [](const Root& r) { return Value{std::uint64_t{r.small} * 2}; }));
    }
    std::uint8_t small = 0;
    FlatMap<std::uint16_t, bool> flag;
    Collection<std::uint16_t, Leaf> leaf;
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
    /// What it comes upon in so many steps.
    const auto walked = [](Walk&& walk, int steps) {
        std::string told;
        for (auto piece = walk.next(); piece; piece = --steps > 0 ? walk.next() : std::nullopt)
            told += piece->kind == Piece::Kind::end ? "end " : piece->name + ' ';
        return told;
    };
    auto walk = *Walk::at(root, "");
    EXPECT_EQ(walked(std::move(walk), 6), " small flag leaf 1 3 ");
    Walk copy = walk;
    for (const std::uint16_t gone : Keys{1, 3, 5}) root->leafDel(gone);
    for (const std::uint16_t come : Keys{2, 7}) root->leafIs(come);
    for (Walk* rest : {&walk, &copy}) EXPECT_EQ(walked(std::move(*rest), 99), "7 9 end twice end ");
    std::string told;
    for (const char* part : {"leaf", "leaf/7", "leaf/7/colour", "small"})
        told += walked(*Walk::at(root, part), 99) + '|';
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
        root.smallIs(static_cast<std::uint8_t>(root.small + 1));
        EXPECT_EQ(second, expected);
        last.hasNotificationActiveIs(expected == 1);
    }
}

TEST(Record, PatchesAreTakenWholeOrNotAtAll) {
    const auto of = [](const char* key, Value value) { return Value{Object{{key, std::move(value)}}}; };
    const auto number = [](std::uint64_t n) { return Value{n}; };
    Root root;
    ASSERT_FALSE(root.apply(Object{{"small", number(7)},
                                   {"flag", Object{{"1", true}, {"2", true}}},
                                   {"leaf", of("5", of("colour", "green"))}}));
    EXPECT_EQ(root.leaf.get(5)->colour, Colour::green);
    ASSERT_FALSE(root.apply(of("flag", of("1", Value{}))));
    EXPECT_EQ(root.flag.size(), 1U);

    const Value before = root.value();
    for (const auto& [field, value, text] : std::vector<std::tuple<const char*, Value, std::string>>{
             {"small", number(8), "small: 8 is not from 0 to 7"},
             {"small", "x", "small: \"x\" is not a whole number from 0 to 255"},
             {"nothing", true, "no field \"nothing\" in Test::Root"},
             {"flag", of("x", true), "flag: \"x\" is not a whole number from 0 to 65535"},
             {"flag", of("3", "x"), "flag/3: \"x\" is not true or false"},
             {"leaf", of("6", of("colour", "blue")),
              "leaf/6/colour: \"blue\" is not one of \"red\" \"green\""},
             {"twice", number(2), "twice: cannot be written"},
         }) {
        const auto problem = root.apply(Object{{"flag", of("9", true)}, {field, value}});
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

}  // namespace
}  // namespace State
