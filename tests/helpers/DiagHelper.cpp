// Child processes for the diagnostics tests. Usage: DiagHelper <mode>.
//   objects: prints "<label> <address>" for objects of known types, then
//            "ready", and waits for its standard input to close.
//   leak:    uses the library's process-lifetime objects and leaks 4242 bytes.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include <Tamlo/Debug.h>
#include <Tamlo/Exception.h>
#include <Tamlo/IntrospectionMap.h>
#include <Tamlo/Loco.h>
#include <Tamlo/Random.h>

// Vtables of the executable: kept in its full symbol table only, and placed
// by the load bias of a position-independent executable.
namespace diag {

struct Shape {
  virtual ~Shape() = default;
};
struct Circle : Shape {};
template <typename T>
struct Box : Shape {};
struct Named {
  virtual ~Named() = default;
};
// Its Named part starts with a pointer into the middle of its vtable group.
struct Labelled : Shape, Named {};

}  // namespace diag

namespace {

// Anything but a vtable pointer in the first word.
struct Words {
  uintptr_t first;
};

[[gnu::noinline]] int objects() {
  int onTheStack = 0;
  struct Object {
    char const* label;
    void const* address;
  };
  // Static, so that the objects stay reachable and the leak checker quiet.
  static Object const made[] = {
      {"circle", new diag::Circle},
      {"box", new diag::Box<int>},
      {"labelledAsNamed", static_cast<diag::Named*>(new diag::Labelled)},
      {"libraryException", new Tamlo::RuntimeException("made in the helper")},
      {"standardException", new std::runtime_error("made in the helper")},
      {"plainNumber", new Words{42}},
      {"stackPointer", new Words{reinterpret_cast<uintptr_t>(&onTheStack)}},
      {"functionPointer", new Words{reinterpret_cast<uintptr_t>(&objects)}},
  };
  for (Object const& object : made)
    std::printf("%s %p\n", object.label, object.address);
  std::printf("ready\n");
  std::fflush(stdout);
  while (std::getchar() != EOF) {
  }
  return 0;
}

void* volatile leaked = nullptr;

[[gnu::noinline]] void leakOnPurpose() {
  leaked = std::malloc(4242);
  leaked = nullptr;
}

int leak() {
  { Tamlo::Platform::LocoGuard const guard; }
  auto const handle = Tamlo::Platform::getDebugHandler("DiagHelper");
  Tamlo::IntrospectionMap::insert("DiagHelper", nullptr);
  Tamlo::Random::rand64();
  try {
    Tamlo::RuntimeException::throwException("tracked");
  } catch (Tamlo::Exception const&) {
  }
  leakOnPurpose();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::string const mode = argc > 1 ? argv[1] : "";
  if (mode == "objects")
    return objects();
  if (mode == "leak")
    return leak();
  std::fprintf(stderr, "usage: DiagHelper objects|leak\n");
  return 2;
}
