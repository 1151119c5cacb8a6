# The library, and its variants: shkv_variant(NAME KIND FLAGS...) builds the same sources again
# with other flags (static for tests that reach inside, instrumented for sanitizers).
file(GLOB_RECURSE SHKV_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/shared/src/*.cc)

# Lines counted, also in the children of the tests, which leave by _exit.
if(SHKV_COVERAGE)
  list(APPEND SHKV_SOURCES ${PROJECT_SOURCE_DIR}/tests/support/count_at_exit.cc)
  set(SHKV_COUNTERS --coverage -fprofile-update=atomic)
  add_link_options(--coverage)
endif()

set(SHKV_WARNINGS -Wall -Wextra -Wshadow -Wpointer-arith -Wcast-qual -Wundef -Werror)

function(shkv_variant name kind)
  add_library(${name} ${kind} ${SHKV_SOURCES})
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/shared/src)
  target_compile_options(${name} PRIVATE ${SHKV_WARNINGS} -fvisibility=hidden -fno-exceptions -fno-rtti
    -fno-strict-aliasing -ffile-prefix-map=${PROJECT_SOURCE_DIR}/= -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=
    ${SHKV_COUNTERS} ${ARGN})
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON)
  target_link_options(${name} PUBLIC ${ARGN})
endfunction()

# One set of objects makes the shared library and the tests' static one.
shkv_variant(shkv_objects OBJECT)
add_library(ovo_shkv SHARED $<TARGET_OBJECTS:shkv_objects>)
target_include_directories(ovo_shkv PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
set_target_properties(ovo_shkv PROPERTIES SOVERSION 0 VERSION ${PROJECT_VERSION} LINKER_LANGUAGE C)
target_link_options(ovo_shkv PRIVATE -Wl,-z,defs -Wl,--as-needed)
