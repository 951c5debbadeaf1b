#include "Tamlo/IntrusiveBookmarkLinkedList.h"
#include "Tamlo/IntrusiveLinkedListBase.h"

#include <iterator>

#include "SysTestSupport.h"

namespace Tamlo {
namespace {

using Role = BookmarkListLinkNode::Role;
using ::testing::ElementsAre;

// Polymorphic and derived, so the link nodes sit deep inside the object.
struct Named {
  virtual ~Named() = default;
  std::string name_ = "item";
};
struct Item : Named {
  explicit Item(int value) : value_(value) {}
  int value_;
  ListLinkNode queueLink_;
  BookmarkListLinkNode registeredLink_;
};

using Queue = IntrusiveLinkedList<Item, ListLinkNode, &Item::queueLink_>;
using Registry = IntrusiveBookmarkLinkedList<Item, BookmarkListLinkNode, &Item::registeredLink_>;

static_assert(std::forward_iterator<Queue::Iterator>);
static_assert(std::forward_iterator<Registry::Iterator>);

template <typename List>
std::vector<int> values(List const& list) {
  std::vector<int> out;
  for (Item const& item : list)
    out.push_back(item.value_);
  return out;
}

template <typename List>
void pushAll(List& list, std::initializer_list<Item*> items) {
  for (Item* item : items)
    list.pushBack(*item);
}

using Misuse = std::pair<std::function<void()>, std::string>;
void expectAssertions(std::vector<Misuse> const& cases) {
  for (auto const& [action, text] : cases)
    EXPECT_THAT(Tamlo::Test::assertionText(action), testing::EndsWith(text));
}

constexpr char kAlreadyLinked[] = "!( element.*ptrToLinkNode ).isLinked()";
constexpr char kNotLinked[] = "( element.*ptrToLinkNode ).isLinked()";

TEST(IntrusiveList, PushUnlinkAndRelinkKeepOrderAndTheOtherHook) {
  Queue queue;
  Registry registry;
  Item a(1), b(2), c(3), d(4);
  pushAll(queue, {&a, &b});
  queue.pushFront(c);
  queue.pushBack(d);
  registry.pushFront(a);
  registry.pushFront(b);
  EXPECT_THAT(values(queue), ElementsAre(3, 1, 2, 4));
  EXPECT_THAT(values(registry), ElementsAre(2, 1));

  Queue::unlink(a);  // middle
  queue.unlink(c);   // front
  Queue::unlink(d);  // back
  EXPECT_THAT(values(queue), ElementsAre(2));
  EXPECT_THAT(values(registry), ElementsAre(2, 1));
  // The ends must still be joined to the sentinel after unlinking there.
  queue.pushBack(d);
  queue.pushFront(c);
  EXPECT_THAT(values(queue), ElementsAre(3, 2, 4));
  for (Item* item : {&c, &b, &d})
    Queue::unlink(*item);
  EXPECT_TRUE(queue.empty());
}

TEST(IntrusiveList, MisuseAssertsAndLeavesListsUnchanged) {
  Queue queue, other;
  Registry registry, otherRegistry;
  Item a(1), b(2);
  BookmarkListLinkNode bookmark(Role::bookmark);
  pushAll(queue, {&a, &b});
  registry.pushBack(a);
  expectAssertions(
      {{[&] { queue.pushBack(a); }, kAlreadyLinked},
       {[&] { queue.pushFront(b); }, kAlreadyLinked},
       {[&] { other.pushBack(a); }, kAlreadyLinked},
       {[&] { registry.pushFront(a); }, kAlreadyLinked},
       {[&] { Registry::unlink(b); }, kNotLinked},
       {[&] { queue.spliceToFront(queue); }, "splicing a list into itself"},
       {[&] { (void)*queue.end(); }, "dereferencing the end of the list"},
       {[&] { registry.linkBookmark(b.registeredLink_, registry.end()); },
        "linking an element node as a bookmark"},
       {[&] { Registry::unlinkBookmark(a.registeredLink_); },
        "unlinking an element node as a bookmark"},
       {[&] { (void)registry.beginAt(a.registeredLink_); }, "starting a walk at an element node"},
       {[&] { Registry::unlinkBookmark(bookmark); }, "bookmark.isLinked()"},
       {[&] { (void)registry.beginAt(bookmark); }, "bookmark.isLinked()"},
       {[&] { registry.linkBookmark(bookmark, otherRegistry.end()); },
        "position is not an iterator of this list"}});
  EXPECT_THAT(values(queue), ElementsAre(1, 2));
  EXPECT_TRUE(other.empty());
  EXPECT_THAT(values(registry), ElementsAre(1));
  EXPECT_FALSE(bookmark.isLinked());
  EXPECT_FALSE(b.registeredLink_.isLinked());

  Queue::unlink(a);
  registry.linkBookmark(bookmark, registry.begin());
  expectAssertions(
      {{[&] { Queue::unlink(a); }, kNotLinked},
       {[&] { registry.linkBookmark(bookmark, registry.end()); }, "!bookmark.isLinked()"},
       {[&] { otherRegistry.linkBookmark(bookmark, otherRegistry.end()); },
        "!bookmark.isLinked()"}});
  EXPECT_THAT(values(queue), ElementsAre(2));
  EXPECT_EQ(registry.beginAt(bookmark)->value_, 1);
  EXPECT_TRUE(otherRegistry.empty());
}

TEST(IntrusiveList, SplicesMoveWholeListsInOrderAndLeaveBothUsable) {
  Queue persistent, temporary;
  Item a(1), b(2), c(3), d(4), e(5);
  pushAll(persistent, {&a, &b, &c});
  temporary.spliceToFront(persistent);
  EXPECT_THAT(values(temporary), ElementsAre(1, 2, 3));
  EXPECT_TRUE(persistent.empty());
  Queue::unlink(a);  // picked while the temporary list was active
  pushAll(persistent, {&d, &e});

  persistent.spliceToFront(temporary);
  EXPECT_THAT(values(persistent), ElementsAre(2, 3, 4, 5));
  EXPECT_TRUE(temporary.empty());
  // Unlinking on both sides of the seam shows the links across it are whole.
  Queue::unlink(c);
  Queue::unlink(d);
  EXPECT_THAT(values(persistent), ElementsAre(2, 5));
  persistent.pushFront(a);
  persistent.pushBack(c);
  EXPECT_THAT(values(persistent), ElementsAre(1, 2, 5, 3));

  persistent.spliceToFront(temporary);  // empty: changes nothing
  EXPECT_THAT(values(persistent), ElementsAre(1, 2, 5, 3));
}

TEST(IntrusiveList, DestroyingAListOrAnElementUnlinks) {
  Item a(1), b(2);
  BookmarkListLinkNode bookmark(Role::bookmark);
  {
    Queue queue;
    Registry registry;
    pushAll(queue, {&a, &b});
    registry.pushBack(a);
    registry.linkBookmark(bookmark, registry.end());
  }
  for (auto* node : std::initializer_list<Impl::IntrusiveLinkNode const*>{
           &a.queueLink_, &b.queueLink_, &a.registeredLink_, &bookmark})
    EXPECT_FALSE(node->isLinked());

  Queue queue;
  Registry registry;
  auto doomed = std::make_unique<Item>(9);
  pushAll(queue, {&b, doomed.get(), &a});
  registry.pushBack(*doomed);
  doomed.reset();
  EXPECT_THAT(values(queue), ElementsAre(2, 1));
  EXPECT_TRUE(registry.empty());
}

TEST(IntrusiveBookmarkList, WalksAndFrontSkipBookmarks) {
  Registry registry;
  BookmarkListLinkNode first(Role::bookmark), middle(Role::bookmark), last(Role::bookmark);
  registry.linkBookmark(first, registry.end());
  registry.linkBookmark(last, registry.end());
  EXPECT_TRUE(registry.empty());
  EXPECT_EQ(registry.front(), nullptr);

  Item a(1), b(2), c(3);
  pushAll(registry, {&a, &b, &c});                             // behind both bookmarks
  registry.linkBookmark(middle, std::next(registry.begin()));  // before b
  EXPECT_THAT(values(registry), ElementsAre(1, 2, 3));
  EXPECT_EQ(registry.beginAt(middle)->value_, 2);
  EXPECT_EQ(registry.beginAt(first)->value_, 1) << "skips the bookmark behind it";
  EXPECT_EQ(registry.beginAt(last)->value_, 1);
  for (auto* bookmark : {&first, &last, &middle})
    Registry::unlinkBookmark(*bookmark);
  registry.linkBookmark(last, registry.end());  // parked at the end
  EXPECT_EQ(registry.beginAt(last), registry.end());
}

TEST(IntrusiveBookmarkList, WalkSurvivesUnlinkingAroundItsPosition) {
  Registry registry;
  BookmarkListLinkNode bookmark(Role::bookmark);
  std::vector<std::unique_ptr<Item>> items;
  for (int value = 1; value <= 6; ++value) {
    items.push_back(std::make_unique<Item>(value));
    registry.pushBack(*items.back());
  }
  // Visiting 2 unlinks 2 and 3 and destroys 4; visiting 5 unlinks itself and
  // pushes a new element at the front, which the walk has passed already.
  Item newcomer(7);
  std::vector<int> visited;
  for (auto it = registry.begin(); it != registry.end();) {
    Item& item = *it;
    registry.linkBookmark(bookmark, std::next(it));
    visited.push_back(item.value_);
    if (item.value_ == 2) {
      Registry::unlink(*items[1]);
      Registry::unlink(*items[2]);
      items[3].reset();
    } else if (item.value_ == 5) {
      Registry::unlink(item);
      registry.pushFront(newcomer);
    }
    it = registry.beginAt(bookmark);
    Registry::unlinkBookmark(bookmark);
  }
  EXPECT_THAT(visited, ElementsAre(1, 2, 5, 6));
  EXPECT_THAT(values(registry), ElementsAre(7, 1, 6));
}

}  // namespace
}  // namespace Tamlo
