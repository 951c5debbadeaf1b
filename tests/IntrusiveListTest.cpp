#include "Tamlo/IntrusiveBookmarkLinkedList.h"
#include "Tamlo/IntrusiveLinkedListBase.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "Tamlo/Exception.h"
#include "TestSupport.h"

namespace Tamlo {
namespace {

using Role = BookmarkListLinkNode::Role;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Elements are polymorphic and derive from another class, so the link nodes
// sit deep inside the object: the lists must find the element all the same.
class Named {
 public:
  virtual ~Named() = default;
  std::string name_ = "item";
};

class Item : public Named {
 public:
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
  for (Item const& item : list) {
    out.push_back(item.value_);
  }
  return out;
}

// Runs `action` and expects an assertion failure whose message ends in `text`.
void expectAssertion(std::function<void()> const& action, std::string const& text) {
  try {
    action();
    ADD_FAILURE() << "no assertion, expected: " << text;
  } catch (AssertException const& e) {
    EXPECT_THAT(e.message(), ::testing::EndsWith(text));
  }
}

constexpr char kAlreadyLinked[] = "!( element.*ptrToLinkNode ).isLinked()";

// An unexpected assertion fails the test it happens in rather than ending the
// whole run.
class IntrusiveList : public ::testing::Test {
  Tamlo::Test::ThrowOnAssert throwOnAssert_;
};
using IntrusiveBookmarkList = IntrusiveList;

TEST_F(IntrusiveList, NewListAndNodesAreEmpty) {
  Queue queue;
  Item item(1);
  EXPECT_TRUE(queue.empty());
  EXPECT_EQ(queue.size(), 0u);
  EXPECT_EQ(queue.front(), nullptr);
  EXPECT_EQ(queue.begin(), queue.end());
  EXPECT_FALSE(item.queueLink_.isLinked());
  EXPECT_FALSE(item.registeredLink_.isLinked());
  EXPECT_FALSE(item.registeredLink_.bookmark());
}

TEST_F(IntrusiveList, PushFrontAndBackKeepOrder) {
  Queue queue;
  Item a(1), b(2), c(3), d(4);
  queue.pushBack(a);
  queue.pushBack(b);
  queue.pushFront(c);
  queue.pushBack(d);
  EXPECT_THAT(values(queue), ElementsAre(3, 1, 2, 4));
  EXPECT_EQ(queue.size(), 4u);
  EXPECT_FALSE(queue.empty());
  EXPECT_EQ(queue.front(), &c);
  EXPECT_EQ(queue.begin()->name_, "item");
  for (Item* item : {&a, &b, &c, &d}) {
    EXPECT_TRUE(item->queueLink_.isLinked());
    EXPECT_FALSE(item->registeredLink_.isLinked()) << "other hook untouched";
  }
}

TEST_F(IntrusiveList, UnlinkFromMiddleAndEndsThenRelink) {
  Queue queue;
  Item a(1), b(2), c(3), d(4);
  for (Item* item : {&a, &b, &c, &d}) {
    queue.pushBack(*item);
  }

  Queue::unlink(b);
  EXPECT_FALSE(b.queueLink_.isLinked());
  EXPECT_THAT(values(queue), ElementsAre(1, 3, 4));

  queue.unlink(a);
  EXPECT_FALSE(a.queueLink_.isLinked());
  EXPECT_EQ(queue.front(), &c);
  EXPECT_THAT(values(queue), ElementsAre(3, 4));

  Queue::unlink(d);
  EXPECT_FALSE(d.queueLink_.isLinked());
  EXPECT_THAT(values(queue), ElementsAre(3));

  // The ends must still be joined to the sentinel after unlinking there.
  queue.pushBack(b);
  queue.pushFront(a);
  EXPECT_THAT(values(queue), ElementsAre(1, 3, 2));
  EXPECT_TRUE(a.queueLink_.isLinked());
  EXPECT_TRUE(b.queueLink_.isLinked());

  for (Item* item : {&a, &c, &b}) {
    Queue::unlink(*item);
    EXPECT_FALSE(item->queueLink_.isLinked());
  }
  EXPECT_TRUE(queue.empty());
  EXPECT_EQ(queue.front(), nullptr);
}

TEST_F(IntrusiveList, OneElementOnTwoListsThroughTwoNodes) {
  Queue queue;
  Registry registry;
  Item a(1), b(2);
  queue.pushBack(a);
  queue.pushBack(b);
  registry.pushFront(a);
  registry.pushFront(b);
  EXPECT_THAT(values(queue), ElementsAre(1, 2));
  EXPECT_THAT(values(registry), ElementsAre(2, 1));

  Queue::unlink(a);
  EXPECT_FALSE(a.queueLink_.isLinked());
  EXPECT_TRUE(a.registeredLink_.isLinked());
  EXPECT_THAT(values(queue), ElementsAre(2));
  EXPECT_THAT(values(registry), ElementsAre(2, 1));
}

TEST_F(IntrusiveList, MisuseAssertsAndLeavesListsUnchanged) {
  Queue queue, other;
  Registry registry;
  Item a(1), b(2);
  queue.pushBack(a);
  queue.pushBack(b);
  registry.pushBack(a);

  expectAssertion([&] { queue.pushBack(a); }, kAlreadyLinked);
  expectAssertion([&] { queue.pushFront(b); }, kAlreadyLinked);
  expectAssertion([&] { other.pushBack(a); }, kAlreadyLinked);
  expectAssertion([&] { registry.pushFront(a); }, kAlreadyLinked);
  EXPECT_THAT(values(queue), ElementsAre(1, 2));
  EXPECT_TRUE(other.empty());
  EXPECT_THAT(values(registry), ElementsAre(1));

  Queue::unlink(a);
  expectAssertion([&] { Queue::unlink(a); }, "( element.*ptrToLinkNode ).isLinked()");
  expectAssertion([&] { Registry::unlink(b); }, "( element.*ptrToLinkNode ).isLinked()");
  expectAssertion([&] { queue.spliceToFront(queue); }, "splicing a list into itself");
  expectAssertion([&] { (void)*queue.end(); }, "dereferencing the end of the list");
  EXPECT_THAT(values(queue), ElementsAre(2));
}

TEST_F(IntrusiveList, SpliceWholeListIntoEmptyOneInOrder) {
  Queue persistent, temporary;
  Item a(1), b(2), c(3), d(4);
  for (Item* item : {&a, &b, &c}) {
    persistent.pushBack(*item);
  }

  temporary.spliceToFront(persistent);
  EXPECT_THAT(values(temporary), ElementsAre(1, 2, 3));
  EXPECT_TRUE(persistent.empty());
  for (Item* item : {&a, &b, &c}) {
    EXPECT_TRUE(item->queueLink_.isLinked());
  }

  // Both lists go on working independently: the moved elements' neighbours
  // are the new list's sentinel, and the emptied list is usable again.
  persistent.pushBack(d);
  Queue::unlink(a);
  Queue::unlink(c);
  temporary.pushBack(c);
  EXPECT_THAT(values(persistent), ElementsAre(4));
  EXPECT_THAT(values(temporary), ElementsAre(2, 3));
}

TEST_F(IntrusiveList, SpliceRemainderBackInFront) {
  Queue persistent, temporary;
  Item a(1), b(2), c(3), d(4), e(5);
  for (Item* item : {&a, &b, &c}) {
    persistent.pushBack(*item);
  }
  temporary.spliceToFront(persistent);
  Queue::unlink(a);  // picked while the temporary list was active
  persistent.pushBack(d);
  persistent.pushBack(e);

  persistent.spliceToFront(temporary);
  EXPECT_THAT(values(persistent), ElementsAre(2, 3, 4, 5));
  EXPECT_TRUE(temporary.empty());
  EXPECT_FALSE(a.queueLink_.isLinked());

  // Unlinking on both sides of the seam shows the links across it are whole.
  Queue::unlink(c);
  EXPECT_THAT(values(persistent), ElementsAre(2, 4, 5));
  Queue::unlink(d);
  EXPECT_THAT(values(persistent), ElementsAre(2, 5));
  persistent.pushFront(a);
  persistent.pushBack(c);
  EXPECT_THAT(values(persistent), ElementsAre(1, 2, 5, 3));

  // An empty list spliced in changes nothing.
  persistent.spliceToFront(temporary);
  EXPECT_THAT(values(persistent), ElementsAre(1, 2, 5, 3));
  temporary.spliceToFront(persistent);
  temporary.spliceToFront(persistent);
  EXPECT_THAT(values(temporary), ElementsAre(1, 2, 5, 3));
}

TEST_F(IntrusiveList, DestroyingListUnlinksWhatItHolds) {
  Item a(1), b(2);
  BookmarkListLinkNode bookmark(Role::bookmark);
  {
    Queue queue;
    Registry registry;
    queue.pushBack(a);
    queue.pushBack(b);
    registry.pushBack(a);
    registry.linkBookmark(bookmark, registry.end());
  }
  EXPECT_FALSE(a.queueLink_.isLinked());
  EXPECT_FALSE(b.queueLink_.isLinked());
  EXPECT_FALSE(a.registeredLink_.isLinked());
  EXPECT_FALSE(bookmark.isLinked());

  Queue again;
  again.pushBack(b);
  again.pushBack(a);
  EXPECT_THAT(values(again), ElementsAre(2, 1));
}

TEST_F(IntrusiveList, DestroyingLinkedElementLeavesListWhole) {
  Queue queue;
  Registry registry;
  Item a(1), c(3);
  auto b = std::make_unique<Item>(2);
  queue.pushBack(a);
  queue.pushBack(*b);
  queue.pushBack(c);
  registry.pushBack(*b);
  b.reset();
  EXPECT_THAT(values(queue), ElementsAre(1, 3));
  EXPECT_TRUE(registry.empty());
}

TEST_F(IntrusiveBookmarkList, WalksEmptyAndFrontSkipBookmarks) {
  Registry registry;
  BookmarkListLinkNode first(Role::bookmark), middle(Role::bookmark), last(Role::bookmark);
  EXPECT_TRUE(first.bookmark());
  EXPECT_FALSE(first.isLinked());

  registry.linkBookmark(first, registry.end());
  registry.linkBookmark(last, registry.end());
  EXPECT_TRUE(first.isLinked());
  EXPECT_TRUE(registry.empty());
  EXPECT_EQ(registry.size(), 0u);
  EXPECT_EQ(registry.front(), nullptr);
  EXPECT_EQ(registry.begin(), registry.end());
  EXPECT_THAT(values(registry), IsEmpty());

  Item a(1), b(2), c(3);
  registry.pushBack(a);  // behind both bookmarks
  registry.pushBack(b);
  registry.pushBack(c);
  registry.linkBookmark(middle, std::next(registry.begin()));  // before b
  EXPECT_FALSE(registry.empty());
  EXPECT_EQ(registry.size(), 3u);
  EXPECT_EQ(registry.front(), &a);
  EXPECT_THAT(values(registry), ElementsAre(1, 2, 3));
  EXPECT_EQ(registry.beginAt(middle)->value_, 2);
  EXPECT_EQ(registry.beginAt(first)->value_, 1) << "skips the bookmark behind it";
  EXPECT_EQ(registry.beginAt(last)->value_, 1);

  Registry::unlinkBookmark(first);
  Registry::unlinkBookmark(last);
  Registry::unlinkBookmark(middle);
  EXPECT_FALSE(first.isLinked());
  EXPECT_FALSE(middle.isLinked());
  EXPECT_THAT(values(registry), ElementsAre(1, 2, 3));
}

TEST_F(IntrusiveBookmarkList, WalkSurvivesUnlinkingAroundItsPosition) {
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
  EXPECT_FALSE(bookmark.isLinked());
}

// A walk done in slices: each slice resumes behind the bookmark where the
// previous one stopped, and a restart moves the bookmark back to the front.
TEST_F(IntrusiveBookmarkList, BookmarkRelinkedAtFrontRestartsTheWalk) {
  Registry registry;
  BookmarkListLinkNode resume(Role::bookmark), other(Role::bookmark);
  Item a(1), b(2), c(3);
  registry.pushBack(a);
  registry.pushBack(b);
  registry.pushBack(c);
  registry.linkBookmark(other, registry.begin());

  auto walkSlice = [&](int count) {
    std::vector<int> visited;
    auto it = registry.beginAt(resume);
    Registry::unlinkBookmark(resume);
    for (; it != registry.end() && count > 0; ++it, --count) {
      visited.push_back(it->value_);
    }
    if (it != registry.end()) {
      registry.linkBookmark(resume, it);
    }
    return visited;
  };
  auto restart = [&] {
    if (resume.isLinked()) {
      Registry::unlinkBookmark(resume);
    }
    registry.linkBookmark(resume, registry.begin());
  };

  restart();
  EXPECT_TRUE(resume.isLinked());
  EXPECT_THAT(walkSlice(1), ElementsAre(1));
  EXPECT_TRUE(resume.isLinked());
  restart();
  EXPECT_THAT(walkSlice(2), ElementsAre(1, 2));
  EXPECT_THAT(walkSlice(2), ElementsAre(3));
  EXPECT_FALSE(resume.isLinked());

  // The other bookmark stayed where it was through all of this.
  EXPECT_EQ(registry.beginAt(other)->value_, 1);
  EXPECT_THAT(values(registry), ElementsAre(1, 2, 3));

  // Parked at the end, a walk resumes at the end.
  registry.linkBookmark(resume, registry.end());
  EXPECT_EQ(registry.beginAt(resume), registry.end());
}

TEST_F(IntrusiveBookmarkList, BookmarkMisuseAsserts) {
  Registry registry, other;
  Item a(1), b(2);
  registry.pushBack(a);
  BookmarkListLinkNode bookmark(Role::bookmark);

  expectAssertion([&] { registry.linkBookmark(b.registeredLink_, registry.end()); },
                  "linking an element node as a bookmark");
  expectAssertion([&] { Registry::unlinkBookmark(a.registeredLink_); },
                  "unlinking an element node as a bookmark");
  expectAssertion([&] { (void)registry.beginAt(a.registeredLink_); },
                  "starting a walk at an element node");
  expectAssertion([&] { Registry::unlinkBookmark(bookmark); }, "bookmark.isLinked()");
  expectAssertion([&] { (void)registry.beginAt(bookmark); }, "bookmark.isLinked()");
  expectAssertion([&] { registry.linkBookmark(bookmark, other.end()); },
                  "position is not an iterator of this list");
  EXPECT_FALSE(bookmark.isLinked());

  registry.linkBookmark(bookmark, registry.begin());
  expectAssertion([&] { registry.linkBookmark(bookmark, registry.end()); }, "!bookmark.isLinked()");
  expectAssertion([&] { other.linkBookmark(bookmark, other.end()); }, "!bookmark.isLinked()");
  EXPECT_EQ(registry.beginAt(bookmark)->value_, 1);
  EXPECT_TRUE(other.empty());
  EXPECT_FALSE(b.registeredLink_.isLinked());
}

}  // namespace
}  // namespace Tamlo
