// Intrusive, doubly linked, circular lists with a sentinel: objects go on and
// off a list in O(1) without allocating, because the link node is a member of
// the element, named by a pointer to member:
//
//   class Job {
//     ListLinkNode queueLink_;
//     ...
//   };
//   IntrusiveLinkedList<Job, ListLinkNode, &Job::queueLink_> queue;
//
// The list does not own its elements. Lists and nodes are single-thread
// objects: nothing here is synchronised.
//
// Bookmarks are free-standing nodes that mark a position in a list so that a
// walk can be resumed after the elements around it have changed; every walk
// skips them. Only the bookmark list (IntrusiveBookmarkLinkedList.h) can hold
// them; the base here does the walking for both.
#pragma once

#include <Tamlo/Assert.h>

#include <cstddef>
#include <iterator>
#include <memory>
#include <type_traits>

namespace Tamlo {

template <typename Element, typename LinkNode, LinkNode Element::*ptrToLinkNode>
class IntrusiveLinkedListBase;

namespace Impl {

// The links every list node has. A node that is null (never linked) or points
// to itself (unlinked) is on no list. Only the list templates change links, so
// a list only ever holds nodes of its own node type.
class IntrusiveLinkNode {
 public:
  IntrusiveLinkNode(IntrusiveLinkNode const&) = delete;
  IntrusiveLinkNode& operator=(IntrusiveLinkNode const&) = delete;

  bool isLinked() const { return next_ != nullptr && next_ != this; }

 protected:
  IntrusiveLinkNode() = default;
  // An element destroyed while still on a list takes itself off, so the list
  // is never left pointing at freed memory.
  ~IntrusiveLinkNode() {
    if (isLinked()) {
      unlinkFromNeighbours();
    }
  }

 private:
  template <typename Element, typename LinkNode, LinkNode Element::*ptrToLinkNode>
  friend class Tamlo::IntrusiveLinkedListBase;

  void pointToSelf() {
    next_ = this;
    prev_ = this;
  }
  void linkBefore(IntrusiveLinkNode& position) {
    next_ = &position;
    prev_ = position.prev_;
    position.prev_->next_ = this;
    position.prev_ = this;
  }
  void unlinkFromNeighbours() {
    prev_->next_ = next_;
    next_->prev_ = prev_;
    pointToSelf();
  }

  IntrusiveLinkNode* next_ = nullptr;
  IntrusiveLinkNode* prev_ = nullptr;
  // The element this node is a member of, recorded when it is linked, so that
  // walks get from node to element without address arithmetic. Null for
  // sentinels and bookmarks.
  void* element_ = nullptr;
};

}  // namespace Impl

// The link node of an element of a plain IntrusiveLinkedList. Not copyable:
// a copy of a linked node would claim a place in a list it is not part of.
class ListLinkNode final : public Impl::IntrusiveLinkNode {};

// What both list kinds share: linking and unlinking elements, walks that skip
// bookmarks, and splicing. Which nodes are bookmarks is the one thing the
// concrete lists decide (isBookmark).
//
// Destroying a list that still holds nodes unlinks them all (elements and
// bookmarks alike); the elements themselves are untouched.
template <typename Element, typename LinkNode, LinkNode Element::*ptrToLinkNode>
class IntrusiveLinkedListBase {
  static_assert(std::is_base_of_v<Impl::IntrusiveLinkNode, LinkNode>,
                "the link node must be a ListLinkNode or a BookmarkListLinkNode");

 public:
  // A forward iterator over the elements, skipping bookmarks. It stays valid
  // while the element at its position stays linked; to go on after that
  // element is unlinked, park a bookmark (IntrusiveBookmarkLinkedList).
  class Iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = Element;
    using difference_type = std::ptrdiff_t;
    using pointer = Element*;
    using reference = Element&;

    Iterator() = default;

    Element& operator*() const {
      TAMLO_ASSERT(node_ != &list_->sentinel_, "dereferencing the end of the list");
      return *static_cast<Element*>(node_->element_);
    }
    Element* operator->() const { return std::addressof(**this); }
    Iterator& operator++() {
      node_ = list_->firstElementFrom(node_->next_);
      return *this;
    }
    Iterator operator++(int) {
      Iterator before = *this;
      ++*this;
      return before;
    }
    friend bool operator==(Iterator const&, Iterator const&) = default;

   private:
    friend class IntrusiveLinkedListBase;

    Iterator(IntrusiveLinkedListBase const* list, Impl::IntrusiveLinkNode* node)
        : list_(list), node_(node) {}

    IntrusiveLinkedListBase const* list_ = nullptr;
    Impl::IntrusiveLinkNode* node_ = nullptr;
  };

  IntrusiveLinkedListBase(IntrusiveLinkedListBase const&) = delete;
  IntrusiveLinkedListBase& operator=(IntrusiveLinkedListBase const&) = delete;

  // True for nodes that mark a position rather than hold an element.
  virtual bool isBookmark(LinkNode const& node) const = 0;

  Iterator begin() const { return Iterator(this, firstElementFrom(sentinel_.next_)); }
  Iterator end() const { return Iterator(this, &sentinel_); }
  bool empty() const { return begin() == end(); }
  // Counted by a walk: elements can leave a list without the list knowing,
  // so there is no count to keep.
  std::size_t size() const { return static_cast<std::size_t>(std::distance(begin(), end())); }
  // The first element, or null when there is none.
  Element* front() const { return empty() ? nullptr : std::addressof(*begin()); }

  void pushFront(Element& element) { link(element, *sentinel_.next_); }
  void pushBack(Element& element) { link(element, sentinel_); }

  // Takes `element` off whatever list of this type holds it.
  static void unlink(Element& element) {
    Impl::IntrusiveLinkNode& node = element.*ptrToLinkNode;
    TAMLO_ASSERT(node.isLinked(), "( element.*ptrToLinkNode ).isLinked()");
    node.unlinkFromNeighbours();
  }

  // Moves every node of `other`, in order, to the front of this list and
  // leaves `other` empty. Into an empty list this moves a whole list.
  void spliceToFront(IntrusiveLinkedListBase& other) {
    TAMLO_ASSERT(&other != this, "splicing a list into itself");
    Impl::IntrusiveLinkNode& from = other.sentinel_;
    if (from.next_ == &from) {
      return;
    }
    Impl::IntrusiveLinkNode* first = from.next_;
    Impl::IntrusiveLinkNode* last = from.prev_;
    from.pointToSelf();

    Impl::IntrusiveLinkNode& to = sentinel_;
    last->next_ = to.next_;
    to.next_->prev_ = last;
    to.next_ = first;
    first->prev_ = &to;
  }

 protected:
  IntrusiveLinkedListBase() { sentinel_.pointToSelf(); }
  // Not virtual: lists are never destroyed through a pointer to the base.
  ~IntrusiveLinkedListBase() {
    Impl::IntrusiveLinkNode* node = sentinel_.next_;
    while (node != &sentinel_) {
      Impl::IntrusiveLinkNode* next = node->next_;
      node->pointToSelf();
      node = next;
    }
    sentinel_.pointToSelf();
  }

  // For the bookmark list: links a free-standing `node` just before
  // `position`, which must be an iterator of this list (end() puts it last).
  void linkNodeBefore(LinkNode& node, Iterator position) {
    TAMLO_ASSERT(position.list_ == this, "position is not an iterator of this list");
    static_cast<Impl::IntrusiveLinkNode&>(node).linkBefore(*position.node_);
  }
  static void unlinkNode(LinkNode& node) {
    static_cast<Impl::IntrusiveLinkNode&>(node).unlinkFromNeighbours();
  }
  // The position of the first element behind `node`, which must be linked
  // into this list.
  Iterator iteratorBehind(LinkNode const& node) const {
    return Iterator(this,
                    firstElementFrom(static_cast<Impl::IntrusiveLinkNode const&>(node).next_));
  }

 private:
  void link(Element& element, Impl::IntrusiveLinkNode& position) {
    Impl::IntrusiveLinkNode& node = element.*ptrToLinkNode;
    TAMLO_ASSERT(!node.isLinked(), "!( element.*ptrToLinkNode ).isLinked()");
    node.element_ = std::addressof(element);
    node.linkBefore(position);
  }

  // `node` itself if it holds an element or is the sentinel, else the first
  // such node after it.
  Impl::IntrusiveLinkNode* firstElementFrom(Impl::IntrusiveLinkNode* node) const {
    // Every node of this list is a LinkNode: only LinkNodes are ever linked.
    while (node != &sentinel_ && isBookmark(static_cast<LinkNode const&>(*node))) {
      node = node->next_;
    }
    return node;
  }

  // Mutable because iterators of a const list still point at it; the
  // sentinel is bookkeeping, not part of the list's value.
  mutable LinkNode sentinel_;
};

// A list without bookmarks: every node in it holds an element.
template <typename Element, typename LinkNode, LinkNode Element::*ptrToLinkNode>
class IntrusiveLinkedList final : public IntrusiveLinkedListBase<Element, LinkNode, ptrToLinkNode> {
  static_assert(std::is_same_v<LinkNode, ListLinkNode>,
                "a plain list links its elements through a ListLinkNode");

 public:
  IntrusiveLinkedList() = default;
  ~IntrusiveLinkedList() = default;

  bool isBookmark(LinkNode const&) const override { return false; }
};

}  // namespace Tamlo
