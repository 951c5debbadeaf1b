// An intrusive list whose walks can be paused and resumed: a bookmark parked
// in the list keeps its place while the elements around it come and go, and
// a later walk starts again behind it. Single-thread objects, like every
// intrusive list (IntrusiveLinkedListBase.h).
//
//   for (auto it = list.begin(); it != list.end();) {
//     Job& job = *it;
//     list.linkBookmark(bookmark_, std::next(it));
//     job.run();  // may unlink job, or any other element
//     it = list.beginAt(bookmark_);
//     list.unlinkBookmark(bookmark_);
//   }
#pragma once

#include <Tamlo/IntrusiveLinkedListBase.h>

namespace Tamlo {

// The link node of an element of an IntrusiveBookmarkLinkedList, or, made
// with Role::bookmark, a bookmark of such a list. The role is fixed at
// construction.
class BookmarkListLinkNode final : public Impl::IntrusiveLinkNode {
 public:
  enum class Role : bool { element, bookmark };

  BookmarkListLinkNode() = default;
  explicit BookmarkListLinkNode(Role role) : bookmark_(role == Role::bookmark) {}

  bool bookmark() const { return bookmark_; }

 private:
  bool bookmark_ = false;
};

// A list of elements and bookmarks; walks, size(), empty() and front() see
// only the elements. A bookmark is linked into at most one list at a time.
template <typename Element, typename LinkNode, LinkNode Element::*ptrToLinkNode>
class IntrusiveBookmarkLinkedList final
    : public IntrusiveLinkedListBase<Element, LinkNode, ptrToLinkNode> {
  static_assert(std::is_same_v<LinkNode, BookmarkListLinkNode>,
                "a bookmark list links its elements through a BookmarkListLinkNode");
  using Base = IntrusiveLinkedListBase<Element, LinkNode, ptrToLinkNode>;

 public:
  using Iterator = typename Base::Iterator;

  IntrusiveBookmarkLinkedList() = default;
  ~IntrusiveBookmarkLinkedList() = default;

  bool isBookmark(LinkNode const& node) const override { return node.bookmark(); }

  // Parks `bookmark` just before `position`, an iterator of this list;
  // end() parks it behind the last element.
  void linkBookmark(LinkNode& bookmark, Iterator position) {
    TAMLO_ASSERT(bookmark.bookmark(), "linking an element node as a bookmark");
    TAMLO_ASSERT(!bookmark.isLinked(), "!bookmark.isLinked()");
    Base::linkNodeBefore(bookmark, position);
  }

  static void unlinkBookmark(LinkNode& bookmark) {
    TAMLO_ASSERT(bookmark.bookmark(), "unlinking an element node as a bookmark");
    TAMLO_ASSERT(bookmark.isLinked(), "bookmark.isLinked()");
    Base::unlinkNode(bookmark);
  }

  // The first element behind `bookmark`, which must be parked in this list.
  // The iterator does not depend on the bookmark, which may be unlinked
  // straight away.
  Iterator beginAt(LinkNode const& bookmark) const {
    TAMLO_ASSERT(bookmark.bookmark(), "starting a walk at an element node");
    TAMLO_ASSERT(bookmark.isLinked(), "bookmark.isLinked()");
    return Base::iteratorBehind(bookmark);
  }
};

}  // namespace Tamlo
