#include "Tamlo/IntrusiveBookmarkLinkedList.h"
#include "Tamlo/IntrusiveLinkedListBase.h"

#include <array>
#include <iterator>
#include <list>
#include <random>

#include "SysTestSupport.h"

namespace Tamlo {
namespace {

using Role = BookmarkListLinkNode::Role;

struct Item {  // the link nodes lie inside, not at the start
  explicit Item(int value) : value_(value) {}
  int value_;
  ListLinkNode queueLink_;
  BookmarkListLinkNode registeredLink_;
};

using Queue = IntrusiveLinkedList<Item, ListLinkNode, &Item::queueLink_>;
using Registry = IntrusiveBookmarkLinkedList<Item, BookmarkListLinkNode, &Item::registeredLink_>;

template <typename List>
std::vector<int> values(List const& list) {
  std::vector<int> out;
  for (Item const& item : list)
    out.push_back(item.value_);
  return out;
}

TEST(IntrusiveList, RandomOperationsOnTwoQueuesMatchStdList) {
  std::vector<std::unique_ptr<Item>> items;
  for (int v = 0; v < 10; ++v)
    items.push_back(std::make_unique<Item>(v));
  auto queues = std::make_unique<std::array<Queue, 2>>();
  std::list<int> models[2];
  std::mt19937 random(12345);
  for (int step = 0; step < 4000; ++step) {
    int const v = static_cast<int>(random() % 10), q = static_cast<int>(random() % 2);
    bool const queued = std::ranges::count(models[0], v) + std::ranges::count(models[1], v);
    unsigned const op = random() % 4;
    if (op == 0 && queued) {
      Queue::unlink(*items[v]);
    } else if (op == 0) {
      bool const front = random() % 2;
      front ? (*queues)[q].pushFront(*items[v]) : (*queues)[q].pushBack(*items[v]);
      front ? models[q].push_front(v) : models[q].push_back(v);
    } else if (op == 1) {
      (*queues)[q].spliceToFront((*queues)[1 - q]);
      models[q].splice(models[q].begin(), models[1 - q]);
    } else if (op == 2) {  // destroying an element unlinks it
      items[v] = std::make_unique<Item>(v);
    }
    if (queued && (op == 0 || op == 2))
      models[0].remove(v), models[1].remove(v);
    for (int i : {0, 1})
      ASSERT_EQ(values((*queues)[i]), std::vector(models[i].begin(), models[i].end())) << step;
  }
  queues.reset();  // destroying a list unlinks its elements
  EXPECT_TRUE(std::ranges::none_of(items, [](auto& item) { return item->queueLink_.isLinked(); }));
}

TEST(IntrusiveList, MisuseAssertsAndLeavesListsUnchanged) {
  Queue queue;
  Registry registry, otherRegistry;
  Item a(1), b(2);
  BookmarkListLinkNode loose(Role::bookmark), linked(Role::bookmark);
  queue.pushBack(a);
  queue.pushBack(b);
  registry.pushBack(a);
  registry.linkBookmark(linked, registry.begin());
  std::pair<std::function<void()>, std::string> const cases[] = {
      {[&] { queue.pushBack(a); }, "!( element.*ptrToLinkNode ).isLinked()"},
      {[&] { Registry::unlink(b); }, "( element.*ptrToLinkNode ).isLinked()"},
      {[&] { queue.spliceToFront(queue); }, "splicing a list into itself"},
      {[&] { (void)*queue.end(); }, "dereferencing the end of the list"},
      {[&] { registry.linkBookmark(b.registeredLink_, registry.end()); },
       "linking an element node as a bookmark"},
      {[&] { Registry::unlinkBookmark(a.registeredLink_); },
       "unlinking an element node as a bookmark"},
      {[&] { (void)registry.beginAt(a.registeredLink_); }, "starting a walk at an element node"},
      {[&] { Registry::unlinkBookmark(loose); }, "bookmark.isLinked()"},
      {[&] { registry.linkBookmark(loose, otherRegistry.end()); },
       "position is not an iterator of this list"},
      {[&] { otherRegistry.linkBookmark(linked, otherRegistry.end()); }, "!bookmark.isLinked()"}};
  for (auto const& [action, text] : cases)
    EXPECT_THAT(Tamlo::Test::assertionText(action), testing::EndsWith(text));
  EXPECT_TRUE(values(queue) == std::vector({1, 2}) && values(registry) == std::vector({1}));
  EXPECT_FALSE(loose.isLinked() || b.registeredLink_.isLinked() || !otherRegistry.empty());
}

TEST(IntrusiveBookmarkList, WalkSurvivesUnlinkingAroundItsPosition) {
  Registry registry;
  BookmarkListLinkNode bookmark(Role::bookmark), parked(Role::bookmark);
  registry.linkBookmark(parked, registry.end());
  EXPECT_TRUE(registry.empty() && registry.front() == nullptr);  // a bookmark is no element
  std::vector<std::unique_ptr<Item>> items;
  for (int value = 1; value <= 6; ++value)
    registry.pushBack(*items.emplace_back(std::make_unique<Item>(value)));
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
  EXPECT_THAT(visited, testing::ElementsAre(1, 2, 5, 6));
  EXPECT_THAT(values(registry), testing::ElementsAre(7, 1, 6));
  EXPECT_EQ(registry.beginAt(parked)->value_, 1) << "skips the bookmark behind it";
}

}  // namespace
}  // namespace Tamlo
