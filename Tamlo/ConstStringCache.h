// Interned, reference-counted names. Task and scheduler names are interned
// once in a ConstStringCache; everything that refers to a name afterwards
// (statistics records, history events) holds a ConstStringRef, which costs a
// pointer and a count bump to copy and never copies the text.
//
// Not thread-safe: a cache and every reference into it belong to one thread
// (the scheduler root's). A cache must outlive the references into it;
// destroying one that still has references is an assertion failure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>

#include <fmt/format.h>

namespace Tamlo {

class ConstStringCache;

// A counted reference to one interned text, or null. Two references are equal
// when their texts are; within one cache that means the same element.
class ConstStringRef {
 public:
  // One interned text with its count. Made only by its cache; the count is
  // mutable because the cache's set hands out const elements.
  class Elem {
   public:
    Elem(ConstStringCache* cache, std::string text) : cache_(cache), text_(std::move(text)) {}

    std::string const& text() const { return text_; }
    uint64_t refCount() const { return refCount_; }
    // Null once the cache was destroyed with this element still referenced.
    ConstStringCache* cache() const { return cache_; }

    void refCountInc() const { ++refCount_; }
    // The last reference erases the element from its cache.
    void refCountDec() const;

   private:
    friend class ConstStringCache;

    mutable ConstStringCache* cache_;
    std::string text_;
    mutable uint64_t refCount_ = 0;
  };

  ConstStringRef() = default;
  ConstStringRef(ConstStringRef const& other) : elem_(other.elem_) {
    if (elem_ != nullptr) {
      elem_->refCountInc();
    }
  }
  ConstStringRef(ConstStringRef&& other) noexcept : elem_(std::exchange(other.elem_, nullptr)) {}
  ConstStringRef& operator=(ConstStringRef const& other) {
    ConstStringRef copy(other);
    swap(copy);
    return *this;
  }
  ConstStringRef& operator=(ConstStringRef&& other) noexcept {
    ConstStringRef moved(std::move(other));
    swap(moved);
    return *this;
  }
  ~ConstStringRef() {
    if (elem_ != nullptr) {
      elem_->refCountDec();
    }
  }

  bool isNull() const { return elem_ == nullptr; }
  explicit operator bool() const { return elem_ != nullptr; }
  // The interned text; empty for null.
  std::string const& text() const { return elem_ != nullptr ? elem_->text() : emptyText(); }
  Elem const* elem() const { return elem_; }

  void swap(ConstStringRef& other) noexcept { std::swap(elem_, other.elem_); }

  friend bool operator==(ConstStringRef const& a, ConstStringRef const& b) {
    return a.elem_ == b.elem_ || a.text() == b.text();
  }

 private:
  friend class ConstStringCache;

  // Takes a new reference on `elem`.
  explicit ConstStringRef(Elem const* elem) : elem_(elem) { elem_->refCountInc(); }

  static std::string const& emptyText();

  Elem const* elem_ = nullptr;
};

std::ostream& operator<<(std::ostream& os, ConstStringRef const& ref);

// The set of interned texts, each present while at least one reference to it
// exists. Interning a new text allocates its element; interning a known one
// and copying references allocate nothing.
class ConstStringCache {
 public:
  ConstStringCache();
  ConstStringCache(ConstStringCache const&) = delete;
  ConstStringCache& operator=(ConstStringCache const&) = delete;
  // Fails with "Destroying ConstStringCache with open references" when any
  // element is left. Declared to throw so that the failure can surface as an
  // AssertException after throwOnAssertFailIs(true); a class holding a cache
  // by value should declare its own destructor noexcept.
  ~ConstStringCache() noexcept(false);

  // A reference to the element holding `text`, inserted if new.
  ConstStringRef intern(std::string_view text);

  // Distinct texts held.
  size_t size() const { return elems_->size(); }
  // References to `text`; 0 when it is not held.
  uint64_t refCount(std::string_view text) const;

 private:
  friend class ConstStringRef::Elem;

  struct TextHash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
    size_t operator()(ConstStringRef::Elem const& elem) const { return (*this)(elem.text()); }
  };
  struct TextEqual {
    using is_transparent = void;
    static std::string_view textOf(std::string_view text) { return text; }
    static std::string_view textOf(ConstStringRef::Elem const& elem) { return elem.text(); }
    template <typename A, typename B>
    bool operator()(A const& a, B const& b) const {
      return textOf(a) == textOf(b);
    }
  };
  using ElemSet = std::unordered_set<ConstStringRef::Elem, TextHash, TextEqual>;

  void eraseElem(ConstStringRef::Elem const& elem);
  // Parks the elements of a cache destroyed with open references for the
  // life of the process, so that the stray references can still be dropped.
  static void keepOrphaned(std::unique_ptr<ElemSet> elems);

  std::unique_ptr<ElemSet> elems_;
};

}  // namespace Tamlo

template <>
struct std::hash<Tamlo::ConstStringRef> {
  size_t operator()(Tamlo::ConstStringRef const& ref) const {
    return std::hash<std::string_view>{}(ref.text());
  }
};

template <>
struct fmt::formatter<Tamlo::ConstStringRef> : fmt::formatter<std::string_view> {
  auto format(Tamlo::ConstStringRef const& ref, fmt::format_context& context) const {
    return fmt::formatter<std::string_view>::format(ref.text(), context);
  }
};
