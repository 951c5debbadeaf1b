# Every dependency comes from the distribution; nothing is fetched or vendored.
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(fmt REQUIRED)
find_package(Boost REQUIRED COMPONENTS iostreams system)
# Header-only; the scheduler's JSON renderings write through its writer.
find_package(RapidJSON REQUIRED CONFIG)
pkg_check_modules(Libevent REQUIRED IMPORTED_TARGET libevent_core libevent_pthreads)
pkg_check_modules(Libunwind REQUIRED IMPORTED_TARGET libunwind)

if(TAMLO_BUILD_FUZZ)
  # Coverage feedback for libFuzzer in the library as well as in the targets,
  # which add -fsanitize=fuzzer (the driver's main) when they link.
  if(TAMLO_SANITIZE)
    message(FATAL_ERROR "TAMLO_BUILD_FUZZ brings its own sanitizers; leave TAMLO_SANITIZE off")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(TAMLO_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(TAMLO_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()
