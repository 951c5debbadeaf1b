#include <Tamlo/ConstStringCache.h>

#include <mutex>
#include <ostream>
#include <vector>

#include <Tamlo/Assert.h>
#include <Tamlo/HeapCheck.h>

namespace Tamlo {

void ConstStringRef::Elem::refCountDec() const {
  TAMLO_ASSERT(refCount_ > 0, "reference count of \"{}\" is already 0", text_);
  --refCount_;
  if (refCount_ == 0 && cache_ != nullptr) {
    cache_->eraseElem(*this);
  }
}

std::string const& ConstStringRef::emptyText() {
  static std::string const empty;
  return empty;
}

std::ostream& operator<<(std::ostream& os, ConstStringRef const& ref) {
  return os << ref.text();
}

ConstStringCache::ConstStringCache() : elems_(std::make_unique<ElemSet>()) {}

ConstStringCache::~ConstStringCache() noexcept(false) {
  if (elems_->empty()) {
    return;
  }
  for (ConstStringRef::Elem const& elem : *elems_) {
    elem.cache_ = nullptr;
  }
  keepOrphaned(std::move(elems_));
  TAMLO_ASSERT_FAIL("Destroying ConstStringCache with open references");
}

ConstStringRef ConstStringCache::intern(std::string_view text) {
  auto found = elems_->find(text);
  if (found == elems_->end()) {
    found = elems_->emplace(this, std::string(text)).first;
  }
  return ConstStringRef(&*found);
}

uint64_t ConstStringCache::refCount(std::string_view text) const {
  auto const found = elems_->find(text);
  return found == elems_->end() ? 0 : found->refCount();
}

void ConstStringCache::keepOrphaned(std::unique_ptr<ElemSet> elems) {
  // Reachable from a never-destroyed static, so leak checkers stay quiet.
  static std::mutex mutex;
  static auto* const orphans = HeapCheck::keepForProcessLifetime(new std::vector<ElemSet*>);
  std::lock_guard<std::mutex> const guard(mutex);
  orphans->push_back(elems.release());
}

void ConstStringCache::eraseElem(ConstStringRef::Elem const& elem) {
  auto const found = elems_->find(elem.text());
  TAMLO_ASSERT(found != elems_->end() && &*found == &elem, "\"{}\" is not held by this cache",
               elem.text());
  elems_->erase(found);
}

}  // namespace Tamlo
