# Settings shared by every target of the project.
add_library(pelicane_common INTERFACE)
target_compile_features(pelicane_common INTERFACE cxx_std_20)
# The project's own code only: third-party headers come in as system headers.
target_compile_options(pelicane_common INTERFACE
  -Wall -Wextra -Wshadow -Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual -Wpedantic)
target_compile_definitions(pelicane_common INTERFACE
  QT_NO_CONTEXTLESS_CONNECT QT_NO_CAST_FROM_BYTEARRAY QT_USE_QSTRINGBUILDER)
target_include_directories(pelicane_common INTERFACE
  ${PROJECT_SOURCE_DIR}/src ${PROJECT_BINARY_DIR}/generated)
if(PELICANE_WERROR)
  target_compile_options(pelicane_common INTERFACE -Werror)
endif()
if(PELICANE_ASAN)
  target_compile_options(pelicane_common INTERFACE -fsanitize=address,undefined -fno-omit-frame-pointer)
  target_link_options(pelicane_common INTERFACE -fsanitize=address,undefined)
endif()

# Every library a fuzz target links is instrumented for libFuzzer and the
# sanitizers; the targets themselves add libFuzzer's main (fuzz/CMakeLists.txt).
# An undefined-behaviour report stops the run, so the fuzzer keeps the input.
if(PELICANE_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "PELICANE_FUZZ needs clang (libFuzzer): configure with -DCMAKE_CXX_COMPILER=clang++")
  endif()
  target_compile_options(pelicane_common INTERFACE
    -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(pelicane_common INTERFACE -fsanitize=address,undefined)
endif()

set(CMAKE_AUTOMOC ON)
set(CMAKE_AUTOUIC ON)
set(CMAKE_AUTORCC ON)

# pelicane_add_library(<target> SOURCES ... PUBLIC ... PRIVATE ...)
# PUBLIC: what the target's headers include; PRIVATE: what only its sources use.
function(pelicane_add_library target)
  cmake_parse_arguments(ARG "" "" "SOURCES;PUBLIC;PRIVATE" ${ARGN})
  add_library(${target} STATIC ${ARG_SOURCES})
  target_link_libraries(${target} PUBLIC pelicane_common ${ARG_PUBLIC} PRIVATE ${ARG_PRIVATE})
  set_target_properties(${target} PROPERTIES AUTOMOC ON AUTOUIC ON)
endfunction()

# pelicane_add_test(<name> SOURCES ... LIBS ...)
# Every test runs offscreen with data, settings, runtime and temporary folders
# of its own, so it never touches the user's files and tests never see each
# other's state or leftovers.
# Its session bus is one that is not there (a test that wants one starts its
# own), so no test reaches the user's keyring or desktop.
function(pelicane_add_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE pelicane_common Qt6::Test pelicane_testsupport ${ARG_LIBS})
  set_target_properties(${name} PROPERTIES AUTOMOC ON AUTOUIC ON)
  set(home ${CMAKE_BINARY_DIR}/testhome/${name})
  add_test(NAME ${name}
           COMMAND ${CMAKE_COMMAND} -E env
             QT_QPA_PLATFORM=offscreen
             XDG_DATA_HOME=${home}/data XDG_CONFIG_HOME=${home}/config
             XDG_CACHE_HOME=${home}/cache XDG_RUNTIME_DIR=${home}/runtime
             HOME=${home}/home TMPDIR=${home}/tmp DBUS_SESSION_BUS_ADDRESS=unix:path=${home}/runtime/no-bus
             http_proxy= https_proxy= HTTP_PROXY= HTTPS_PROXY=
             ${CMAKE_COMMAND} -DHOME=${home} -DEXE=$<TARGET_FILE:${name}>
               -P ${PROJECT_SOURCE_DIR}/cmake/RunTest.cmake)
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 300)
  endif()
  set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT})
endfunction()
