# Sanitizer builds of the display-free core and its unit tests.
#   -DONDREL_SANITIZE=address,undefined   memory errors, leaks and undefined behaviour
#   -DONDREL_SANITIZE=thread              data races in the worker threads
# Such a build is for the unit tests only: build the unit_tests target, not
# all, and run it as scripts/test-sanitizers does. The GTK layer is left out
# (GTK and WebKit are not instrumented, so it would mostly report their
# internals), and so are the benchmarks and the end-to-end run.
set(ONDREL_SANITIZE "" CACHE STRING "Sanitizers for a unit-test build: address,undefined or thread (empty: none)")
set_property(CACHE ONDREL_SANITIZE PROPERTY STRINGS "" "address,undefined" "thread")

if(NOT ONDREL_SANITIZE STREQUAL "")
  if(NOT ONDREL_SANITIZE MATCHES "^(address|undefined|address,undefined|undefined,address|thread)$")
    message(FATAL_ERROR "ONDREL_SANITIZE must be address,undefined or thread, not \"${ONDREL_SANITIZE}\"")
  endif()
  # Compile time dominates these builds (the tests themselves mostly wait on
  # children and sockets): -Og and line tables only halve it against -O1 -g,
  # and still give stacks with file and line. They come after the build
  # type's own -O and -g, and so win.
  add_compile_options(-fsanitize=${ONDREL_SANITIZE} -fno-omit-frame-pointer -Og -g1)
  add_link_options(-fsanitize=${ONDREL_SANITIZE})
  if(ONDREL_SANITIZE MATCHES "undefined")
    # Undefined behaviour fails the test run instead of printing and going on.
    add_compile_options(-fno-sanitize-recover=all)
  endif()
endif()
