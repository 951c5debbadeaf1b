#include <Tamlo/Allocator.h>

namespace Tamlo {
std::atomic<uint64_t> AllocatorStats::liveBytes_{0};
std::atomic<uint64_t> AllocatorStats::liveAllocations_{0};
std::atomic<uint64_t> AllocatorStats::totalAllocations_{0};
}  // namespace Tamlo
