# Flags, and functions that define layers, modules, programs and tests. Used by the whole tree and by vcam/, which
# builds without the rest.
include_guard(GLOBAL)

set(ZU_ROOT ${CMAKE_CURRENT_LIST_DIR}/..)
cmake_path(NORMAL_PATH ZU_ROOT)

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release)
endif()

set(ZU_SANITIZE "" CACHE STRING "Sanitizers to build with: address, thread, or empty for none")
set_property(CACHE ZU_SANITIZE PROPERTY STRINGS "" address thread)
option(ZU_WERROR "Treat warnings as errors" OFF)
option(ZU_FUZZ "Build the fuzzers (Clang only)" OFF)
option(ZU_COVERAGE "Count which lines and branches of src/ the tests reach (GCC only)" OFF)

include(CTest)
include(GNUInstallDirs)
include(CheckPIESupported)
include(CheckCXXCompilerFlag)
check_pie_supported()
find_package(Threads REQUIRED)

# The build tree has all programs in one directory and all shared objects in another, so that a program finds its
# modules by one relative path.
set(ZU_PROGRAM_DIR ${CMAKE_BINARY_DIR}/bin)
set(ZU_MODULE_DIR ${CMAKE_BINARY_DIR}/modules)
set(ZU_INSTALL_MODULE_DIR ${CMAKE_INSTALL_LIBDIR}/zu)

# ---- Flags ----

# Language, warnings and hardening. Use zu_flags instead, except for an object that must not have a sanitizer.
add_library(zu_plain_flags INTERFACE)
target_include_directories(zu_plain_flags INTERFACE ${ZU_ROOT} ${ZU_ROOT}/include)
target_compile_options(
  zu_plain_flags
  INTERFACE -Wall
            -Wextra
            -Wpedantic
            $<$<BOOL:${ZU_WERROR}>:-Werror>
            -Wformat=2
            -Wundef
            -fstack-protector-strong
            -fvisibility=hidden
            $<$<COMPILE_LANGUAGE:CXX>:-Wshadow>
            $<$<COMPILE_LANGUAGE:CXX>:-Wconversion>
            $<$<COMPILE_LANGUAGE:CXX>:-Wsign-conversion>
            $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
            $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
            $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
            $<$<COMPILE_LANGUAGE:CXX>:-fvisibility-inlines-hidden>
            # A unique symbol would keep a shared object mapped after its last dlclose.
            $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-fno-gnu-unique>
            $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wthread-safety>)
target_compile_definitions(zu_plain_flags INTERFACE $<$<COMPILE_LANGUAGE:CXX>:_GLIBCXX_ASSERTIONS>)
# Flags that compilers have only for some processors.
foreach(flag -fcf-protection -fstack-clash-protection)
  string(MAKE_C_IDENTIFIER "ZU_HAS${flag}" known)
  check_cxx_compiler_flag(${flag} ${known})
  if(${known})
    target_compile_options(zu_plain_flags INTERFACE ${flag})
  endif()
endforeach()
target_link_options(zu_plain_flags INTERFACE -Wl,-z,relro -Wl,-z,now)

if(ZU_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "ZU_FUZZ needs Clang")
  elseif(ZU_SANITIZE)
    message(FATAL_ERROR "ZU_FUZZ brings its own sanitizers: leave ZU_SANITIZE empty")
  endif()
  # The code under test is instrumented as well; the fuzzers add the engine.
  set(sanitize -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize=vptr,function -fno-sanitize-recover=all
               -fno-omit-frame-pointer)
elseif(ZU_SANITIZE STREQUAL "address")
  # No check of types: an object or function from another module need not carry C++ type information.
  set(sanitize -fsanitize=address,undefined -fno-sanitize=vptr -fno-sanitize-recover=all -fno-omit-frame-pointer)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    list(APPEND sanitize -fno-sanitize=function)
  endif()
elseif(ZU_SANITIZE STREQUAL "thread")
  set(sanitize -fsanitize=thread -fno-omit-frame-pointer)
elseif(ZU_SANITIZE)
  message(FATAL_ERROR "ZU_SANITIZE must be address, thread or empty")
elseif(NOT CMAKE_BUILD_TYPE STREQUAL "Debug" AND NOT "${CMAKE_CXX_FLAGS} ${CMAKE_C_FLAGS}" MATCHES "_FORTIFY_SOURCE")
  target_compile_definitions(zu_plain_flags INTERFACE _FORTIFY_SOURCE=3)
endif()

# The flags of every target.
add_library(zu_flags INTERFACE)
target_link_libraries(zu_flags INTERFACE zu_plain_flags)
target_compile_options(zu_flags INTERFACE ${sanitize})
target_link_options(zu_flags INTERFACE ${sanitize})
if(ZU_SANITIZE)
  # The sanitizer's run time is a shared library, so that a program, its modules and what it preloads have one.
  set(runtime_address libasan.so)
  set(runtime_thread libtsan.so)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    if(NOT ZU_SANITIZE STREQUAL "address")
      message(FATAL_ERROR "ZU_SANITIZE=thread needs GCC: Clang's run time for it is not a shared library")
    endif()
    set(runtime_address libclang_rt.asan-${CMAKE_SYSTEM_PROCESSOR}.so)
  endif()
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${runtime_${ZU_SANITIZE}}
                  OUTPUT_VARIABLE ZU_SANITIZER_RUNTIME OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    # GCC's name of the macro, which Clang 14 does not define.
    target_compile_definitions(zu_flags INTERFACE __SANITIZE_ADDRESS__)
    # It is in a directory of the compiler, where no program looks for a library.
    cmake_path(GET ZU_SANITIZER_RUNTIME PARENT_PATH runtime_directory)
    target_link_options(zu_flags INTERFACE -shared-libasan
                        $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-Wl,-rpath,${runtime_directory}>)
  endif()
endif()
if(ZU_COVERAGE)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    message(FATAL_ERROR "ZU_COVERAGE needs GCC")
  endif()
  # Only the module's own code is counted; see src/CMakeLists.txt.
  target_link_options(zu_flags INTERFACE --coverage)
endif()

# ---- Targets ----

# zu_command_line_sources(files...): files that include the command-line parser. They are compiled with less
# optimisation, because its templates take half of the compile time and run once. Not where files are joined: a file
# with a separate option could not be.
function(zu_command_line_sources)
  if(NOT CMAKE_UNITY_BUILD)
    set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS $<$<NOT:$<CONFIG:Debug>>:-O1>)
  endif()
endfunction()

# zu_layer(NAME SOURCES files... [ON layers...] [LINK libraries...] [FLAGS target]): the object library
# zu_NAME_objects, and zu_NAME, which adds those objects and the objects of the layers below to the target that
# links it. Not an archive, because a linker may leave objects of an archive out. FLAGS: the flags it is compiled
# with (default zu_flags).
function(zu_layer name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "FLAGS" "SOURCES;ON;LINK")
  if(NOT arg_FLAGS)
    set(arg_FLAGS zu_flags)
  endif()
  add_library(zu_${name}_objects OBJECT EXCLUDE_FROM_ALL ${arg_SOURCES})
  target_link_libraries(zu_${name}_objects PRIVATE ${arg_FLAGS} ${arg_LINK})
  add_library(zu_${name} INTERFACE)
  target_sources(zu_${name} INTERFACE $<TARGET_OBJECTS:zu_${name}_objects>)
  target_link_libraries(zu_${name} INTERFACE ${arg_ON} ${arg_LINK})
endfunction()

# zu_module(NAME sources... LINK libraries...): a shared object that a host loads. It is built in the module directory
# without the prefix "lib", exports one symbol and may have no undefined ones.
function(zu_module name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "LINK")
  set(exports ${ZU_ROOT}/src/module/exports.map)
  add_library(${name} MODULE ${arg_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE zu_flags ${arg_LINK})
  target_link_options(${name} PRIVATE -Wl,-z,defs -Wl,--version-script=${exports})
  set_target_properties(${name} PROPERTIES PREFIX "" LIBRARY_OUTPUT_DIRECTORY ${ZU_MODULE_DIR}
                                           LINK_DEPENDS ${exports})
  if(CMAKE_BUILD_TYPE STREQUAL "Release" AND NOT ZU_SANITIZE)
    # The same for each build with the same compiler and SOURCE_DATE_EPOCH, anywhere.
    add_custom_command(TARGET ${name} POST_BUILD COMMAND sha256sum $<TARGET_FILE_NAME:${name}>
                       WORKING_DIRECTORY ${ZU_MODULE_DIR} VERBATIM)
  endif()
  install(TARGETS ${name} LIBRARY DESTINATION ${ZU_INSTALL_MODULE_DIR} COMPONENT modules)
endfunction()

# zu_compressed(FILE DESTINATION COMPONENT [NAME]): installs FILE.gz, or NAME.gz. The same file for the same input.
function(zu_compressed file destination component)
  cmake_path(GET file FILENAME name)
  if(ARGN)
    set(name ${ARGN})
  endif()
  set(compressed ${CMAKE_BINARY_DIR}/compressed/${component}/${name}.gz)
  cmake_path(GET compressed PARENT_PATH directory)
  file(MAKE_DIRECTORY ${directory})
  execute_process(COMMAND gzip -9nc ${file} OUTPUT_FILE ${compressed} COMMAND_ERROR_IS_FATAL ANY)
  install(FILES ${compressed} DESTINATION ${destination} COMPONENT ${component})
endfunction()

# zu_man_page(PAGE COMPONENT): installs a man page with the version and its date.
function(zu_man_page page component)
  cmake_path(GET page FILENAME name)
  set(dated ${CMAKE_BINARY_DIR}/man/${name})
  configure_file(${page} ${dated} @ONLY)
  zu_compressed(${dated} ${CMAKE_INSTALL_MANDIR}/man1 ${component})
endfunction()

# zu_program(NAME sources... LINK libraries...): an executable that is installed with its man page, NAME.1.
function(zu_program name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "LINK")
  add_executable(${name} ${arg_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE zu_flags ${arg_LINK})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${ZU_PROGRAM_DIR})
  install(TARGETS ${name} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT programs)
  zu_man_page(${name}.1 programs)
  zu_completion(${name} programs)
endfunction()

# zu_completion(NAME COMPONENT): installs the completion of the program's command line for bash and zsh.
set(ZU_COMPLETION_DIR ${CMAKE_BINARY_DIR}/completion)
function(zu_completion name component)
  set(function _${name})
  configure_file(${ZU_ROOT}/common/completion/bash.in ${ZU_COMPLETION_DIR}/bash/${name} @ONLY)
  configure_file(${ZU_ROOT}/common/completion/zsh.in ${ZU_COMPLETION_DIR}/zsh/_${name} @ONLY)
  install(FILES ${ZU_COMPLETION_DIR}/bash/${name} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
          COMPONENT ${component})
  install(FILES ${ZU_COMPLETION_DIR}/zsh/_${name} DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions
          COMPONENT ${component})
endfunction()

# ---- Tests ----

if(BUILD_TESTING)
  find_package(GTest REQUIRED)
  include(GoogleTest)
  # Precompiles the headers that every test needs: they take longer to compile than most tests.
  add_executable(zu_test_headers EXCLUDE_FROM_ALL ${ZU_ROOT}/tests/support/test_headers.cpp)
  target_link_libraries(zu_test_headers PRIVATE zu_flags GTest::gmock)
  # The code under test is built as it is shipped. The tests are not optimised, because build time matters more for
  # them than speed: -O1 takes twice as long. Without optimisation the C library has no checked functions. Under an
  # emulator speed matters.
  set(ZU_TEST_OPTIMISATION -O0 -U_FORTIFY_SOURCE)
  if(CMAKE_CROSSCOMPILING)
    set(ZU_TEST_OPTIMISATION -O1)
  endif()
  target_compile_options(zu_test_headers PRIVATE ${ZU_TEST_OPTIMISATION})
  target_precompile_headers(zu_test_headers PRIVATE <gmock/gmock.h> <gtest/gtest.h> <string> <vector>)
endif()

# The value of LD_PRELOAD with which a program's camera calls reach virtual cameras.
set(ZU_VCAM_PRELOAD ${ZU_MODULE_DIR}/libzu-vcam-preload.so)
if(ZU_SANITIZE)
  # A sanitizer's run time must come before every other library.
  string(PREPEND ZU_VCAM_PRELOAD ${ZU_SANITIZER_RUNTIME}:)
endif()

# zu_test(NAME sources... [CAMERAS] [LINK libraries...] [TIMEOUT seconds] [DEFINE definitions...] [NEEDS targets...]):
# a GoogleTest program; each of its tests is a ctest. With CAMERAS its camera calls reach virtual cameras: it constructs
# a PreloadedCameras and opens /dev/videoN. NEEDS: targets that must be built before it runs. TIMEOUT is the cost, too:
# ctest starts what may take long first, so that it does not run alone at the end.
function(zu_test name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "CAMERAS" "TIMEOUT" "LINK;DEFINE;NEEDS")
  if(NOT BUILD_TESTING)
    return()
  endif()
  set(arg_COST ${arg_TIMEOUT})
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 300)
    set(arg_COST 0)
  endif()
  set(properties TIMEOUT ${arg_TIMEOUT} COST ${arg_COST})
  if(arg_CAMERAS)
    list(APPEND properties ENVIRONMENT "LD_PRELOAD=${ZU_VCAM_PRELOAD}")
    list(APPEND arg_LINK zu_vcam_testing)
    list(APPEND arg_NEEDS zu_vcam_preload)
  endif()
  add_executable(${name} ${arg_UNPARSED_ARGUMENTS})
  if(CMAKE_BUILD_TYPE STREQUAL "Release")
    # Joined also where the product is built file by file, to save half the build time.
    set_target_properties(${name} PROPERTIES UNITY_BUILD ON)
  endif()
  target_link_libraries(${name} PRIVATE zu_flags ${arg_LINK} GTest::gmock GTest::gtest_main ${CMAKE_DL_LIBS})
  target_compile_definitions(${name} PRIVATE ${arg_DEFINE})
  target_compile_options(${name} PRIVATE ${ZU_TEST_OPTIMISATION})
  target_precompile_headers(${name} REUSE_FROM zu_test_headers)
  # False warnings of GCC 12 about std::string. It suppresses them in system headers, but not in a precompiled one.
  target_compile_options(${name} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-array-bounds -Wno-restrict
                                         -Wno-stringop-overflow>)
  if(arg_NEEDS)
    add_dependencies(${name} ${arg_NEEDS})
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES ${properties})
endfunction()

# zu_program_test(NAME COMMAND words... [TIMEOUT seconds] [ENVIRONMENT NAME=value]): a ctest that runs any program. Exit
# status 77 means that the test was skipped.
function(zu_program_test name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "TIMEOUT;ENVIRONMENT" "COMMAND")
  set(arg_COST ${arg_TIMEOUT})
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 300)
    set(arg_COST 0)
  endif()
  add_test(NAME ${name} COMMAND ${arg_COMMAND})
  set_tests_properties(${name} PROPERTIES TIMEOUT ${arg_TIMEOUT} COST ${arg_COST} SKIP_RETURN_CODE 77
                                          ENVIRONMENT "${arg_ENVIRONMENT}")
endfunction()
