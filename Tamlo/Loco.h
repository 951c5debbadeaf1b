// The library lock: one process-wide recursive lock guarding the library's
// shared registries (trace settings, handles, format and file, every trace
// line, the introspection map, the plugin registry). It is never destroyed,
// so it stays usable during process exit.
#pragma once

#include <Tamlo/Locking.h>

namespace Tamlo {
namespace Platform {

// The interface of the library lock: recursive, owner-recording.
class Loco {
 public:
  virtual void lock() = 0;
  virtual void unlock() = 0;
  virtual bool owns_lock() const = 0;
  virtual ~Loco() = default;
};

// The one library lock, created on first call (from any thread).
Loco& loco();

// Holds the library lock for a scope.
class LocoGuard {
 public:
  LocoGuard() : loco_(&loco()) { loco_->lock(); }
  ~LocoGuard() { loco_->unlock(); }
  LocoGuard(LocoGuard const&) = delete;
  LocoGuard& operator=(LocoGuard const&) = delete;

 private:
  Loco* loco_;
};

}  // namespace Platform

// The library lock's implementation: a RecursiveLock.
class Loco final : public Platform::Loco {
 public:
  void lock() override { lock_.lock(); }
  void unlock() override { lock_.unlock(); }
  bool owns_lock() const override { return lock_.owns_lock(); }
  int lockCount() const { return lock_.lockCount(); }

 private:
  Locking::RecursiveLock lock_;
};

}  // namespace Tamlo
