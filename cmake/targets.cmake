# The helpers that every CMakeLists.txt below uses: our own targets get the warnings, the sanitizers or
# the hardening, and the include root in one place, so no folder can forget them.

set(XCPLUMO_SANITIZE "" CACHE STRING "Sanitizers for our own targets, e.g. address,undefined or thread")

add_library(xcplumo_options INTERFACE)
target_compile_options(xcplumo_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion -Wold-style-cast -Wnon-virtual-dtor
    -Woverloaded-virtual -Wcast-align -Wformat=2 -Wimplicit-fallthrough -Werror
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

# The standard library's headers cost the sanitizer builds a fifth of their time. The other builds and clang-tidy go without,
# so that a missing include shows.
option(XCPLUMO_PRECOMPILED "Precompile the headers of the standard library" OFF)
function(xcplumo_precompiled name)
    if(XCPLUMO_PRECOMPILED)
        if(NOT TARGET xcplumo_precompiled)
            add_library(xcplumo_precompiled OBJECT ${PROJECT_SOURCE_DIR}/cmake/precompiled.cpp)
            target_precompile_headers(xcplumo_precompiled PRIVATE ${PROJECT_SOURCE_DIR}/cmake/precompiled.h)
            target_link_libraries(xcplumo_precompiled PRIVATE xcplumo_options)
            # A compiler cache takes the header for the same as long as its content is.
            target_compile_options(xcplumo_precompiled PRIVATE $<$<CXX_COMPILER_ID:Clang>:SHELL:-Xclang -fno-pch-timestamp>)
        endif()
        target_precompile_headers(${name} REUSE_FROM xcplumo_precompiled)
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

# xcplumo_test(NAME SOURCES ... LINKS ...): a GoogleTest program; each of its cases becomes one CTest test.
function(xcplumo_test name)
    cmake_parse_arguments(arg "" "" "SOURCES;LINKS" ${ARGN})
    add_executable(${name} ${arg_SOURCES})
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
    target_link_libraries(${name} PRIVATE xcplumo_options ${arg_LINKS} GTest::gtest_main)
    xcplumo_precompiled(${name})
    include(GoogleTest)
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 120)
endfunction()
