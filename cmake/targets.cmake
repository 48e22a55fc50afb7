# The helpers that every CMakeLists.txt below uses: our own targets get the warnings, the sanitizers or
# the hardening, and the include root in one place, so no folder can forget them.

set(XCPLUMO_SANITIZE "" CACHE STRING "Sanitizers for our own targets, e.g. address,undefined or thread")

add_library(xcplumo_options INTERFACE)
target_compile_options(xcplumo_options INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wno-sign-conversion -Wold-style-cast -Wnon-virtual-dtor
    -Woverloaded-virtual -Wcast-align -Wformat=2 -Wimplicit-fallthrough -Werror
    # Where sources are compiled together, a local name of one may hide a name of another.
    $<$<NOT:$<BOOL:${CMAKE_UNITY_BUILD}>>:-Wshadow>
    $<$<CXX_COMPILER_ID:GNU>:-Wshadow=local>
    $<$<CXX_COMPILER_ID:Clang>:-Wreserved-identifier>
    # GCC 12 sees overlapping copies in "text" + std::string (its bug 105651) as soon as it optimises.
    $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>)
if(XCPLUMO_SANITIZE)
    target_compile_options(xcplumo_options INTERFACE -fsanitize=${XCPLUMO_SANITIZE} -fno-sanitize-recover=all
                                                     -fno-omit-frame-pointer)
    target_link_options(xcplumo_options INTERFACE -fsanitize=${XCPLUMO_SANITIZE})
else()
    include(${CMAKE_CURRENT_LIST_DIR}/hardening.cmake)
    target_link_libraries(xcplumo_options INTERFACE xcplumo_hardening)
endif()

# The standard library's headers cost the sanitizer builds a fifth of their time, those of GoogleTest its tests a third. The
# others go without, so that in the preset edit a missing include shows.
option(XCPLUMO_PRECOMPILED "Precompile the headers of the standard library, and GoogleTest for the tests" OFF)

# xcplumo_precompile(NAME HEADER LINKS...): an object library that holds the header and what the targets that use it link.
function(xcplumo_precompile name header)
    add_library(${name} OBJECT ${PROJECT_SOURCE_DIR}/cmake/precompiled.cpp)
    target_precompile_headers(${name} PRIVATE ${PROJECT_SOURCE_DIR}/cmake/${header})
    target_link_libraries(${name} PRIVATE ${ARGN})
    # A compiler cache takes the header for the same as long as its content is.
    target_compile_options(${name} PRIVATE $<$<CXX_COMPILER_ID:Clang>:SHELL:-Xclang -fno-pch-timestamp>)
endfunction()

function(xcplumo_precompiled name)
    if(XCPLUMO_PRECOMPILED)
        if(NOT TARGET xcplumo_precompiled)
            xcplumo_precompile(xcplumo_precompiled precompiled.h xcplumo_options)
        endif()
        target_precompile_headers(${name} REUSE_FROM xcplumo_precompiled)
    endif()
endfunction()

# It takes as long to optimise a test as to compile it, and most tests run for milliseconds.
add_library(xcplumo_plain_tests INTERFACE)
target_link_libraries(xcplumo_plain_tests INTERFACE xcplumo_options)
if(XCPLUMO_SANITIZE)
    target_compile_options(xcplumo_plain_tests INTERFACE -O0)
elseif(CMAKE_BUILD_TYPE STREQUAL "Release")
    target_compile_options(xcplumo_plain_tests INTERFACE -O1) # hardening needs that much
endif()
function(xcplumo_precompiled_test name)
    if(XCPLUMO_PRECOMPILED)
        if(NOT TARGET xcplumo_precompiled_tests)
            xcplumo_precompile(xcplumo_precompiled_tests precompiled_tests.h xcplumo_plain_tests GTest::gtest)
        endif()
        target_precompile_headers(${name} REUSE_FROM xcplumo_precompiled_tests)
    endif()
endfunction()

# xcplumo_library(NAME SOURCES ... LINKS ...): one static library per folder of src/.
function(xcplumo_library name)
    cmake_parse_arguments(arg "" "" "SOURCES;LINKS;PRIVATE_LINKS" ${ARGN})
    add_library(${name} STATIC ${arg_SOURCES})
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(${name} PUBLIC ${arg_LINKS} PRIVATE xcplumo_options ${arg_PRIVATE_LINKS})
    xcplumo_precompiled(${name})
endfunction()

# xcplumo_version(SOURCE): this source file tells the program's version.
function(xcplumo_version source)
    set_source_files_properties(${source} PROPERTIES COMPILE_DEFINITIONS "XCPLUMO_VERSION=\"${PROJECT_VERSION}\"")
endfunction()

# xcplumo_program(NAME SOURCES ... LINKS ...): an installed program and its manual page.
function(xcplumo_program name)
    cmake_parse_arguments(arg "" "" "SOURCES;LINKS" ${ARGN})
    add_executable(${name} ${arg_SOURCES})
    target_link_libraries(${name} PRIVATE xcplumo_options ${arg_LINKS})
    install(TARGETS ${name} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    set(page ${CMAKE_BINARY_DIR}/man/${name}.1)
    add_custom_command(OUTPUT ${page}.gz DEPENDS ${name} VERBATIM
                       COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
                       COMMAND $<TARGET_FILE:${name}> --help-man > ${page}
                       COMMAND gzip -9nf ${page})
    add_custom_target(${name}-man ALL DEPENDS ${page}.gz)
    install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endfunction()

# xcplumo_test(NAME [COMPUTES] SOURCES ... LINKS ...): a GoogleTest program; each of its cases becomes one CTest test. COMPUTES:
# it runs for seconds and is optimised like the product.
function(xcplumo_test name)
    cmake_parse_arguments(arg "COMPUTES" "" "SOURCES;LINKS" ${ARGN})
    add_executable(${name} ${arg_SOURCES})
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
    target_link_libraries(${name} PRIVATE xcplumo_options ${arg_LINKS} GTest::gtest_main)
    if(arg_COMPUTES)
        xcplumo_precompiled(${name})
    else()
        target_link_libraries(${name} PRIVATE xcplumo_plain_tests)
        xcplumo_precompiled_test(${name})
    endif()
    include(GoogleTest)
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 120)
endfunction()
