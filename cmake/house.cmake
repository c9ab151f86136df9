# What every target of the project shares. The daemon has no exceptions, no RTTI and no C++ runtime library;
# tools and tests may have all three.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)

set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")

# Frames stay walkable for the call stack of a crash report, and a program runs where its symbols say.
add_compile_options(-fno-omit-frame-pointer -fno-optimize-sibling-calls -ffunction-sections -fdata-sections)
# Nothing of a function comes before its frame, or a crash there hides the caller.
add_compile_options($<$<CXX_COMPILER_ID:GNU>:-fno-schedule-insns2> $<$<CXX_COMPILER_ID:GNU>:-fno-shrink-wrap>)
add_compile_options($<$<NOT:$<BOOL:$<TARGET_PROPERTY:POSITION_INDEPENDENT_CODE>>>:-fno-pie>)
add_link_options($<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-no-pie>)
add_compile_options(-Wall -Wextra -Werror -Wshadow -Wformat=2 -Wvla -Wundef -Wcast-qual -Wpointer-arith)
add_link_options(-Wl,--gc-sections -Wl,--as-needed)

# What ships is built for its symbols file too, which is to be the same wherever the sources lie. Nothing unwinds it:
# a dump walks the frames, a debugger reads the symbols file.
set(house_shipped_options -fno-exceptions -fno-rtti -fno-unwind-tables -fno-asynchronous-unwind-tables
    -g -ffile-prefix-map=${PROJECT_SOURCE_DIR}/= -ffile-prefix-map=${CMAKE_BINARY_DIR}=.)

# One folder is one static library; its include path is the root of the repository.
function(house_library name)
    add_library(${name} STATIC ${ARGN})
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
    target_compile_options(${name} PRIVATE ${house_shipped_options} -fno-threadsafe-statics)
endfunction()

# Every call out of the target's programs goes to __wrap_CALL, which finds what it replaces as __real_CALL. Where
# the C library's headers rename the call, these two follow.
function(house_wrap target scope)
    foreach(call ${ARGN})
        set(linked_as ${call})
        if(DEFINED linked_as_${call})
            set(linked_as ${linked_as_${call}})
            target_compile_definitions(${target} PRIVATE
                __wrap_${call}=__wrap_${linked_as} __real_${call}=__real_${linked_as})
        endif()
        target_link_options(${target} ${scope} -Wl,--wrap=${linked_as})
    endforeach()
endfunction()

# A GoogleTest program over the objects that ship; WRAP lists the calls that the program replaces.
function(house_test name)
    cmake_parse_arguments(arg "" "" "SOURCES;LIBRARIES;WRAP;LABELS" ${ARGN})
    add_executable(${name} ${arg_SOURCES})
    target_link_libraries(${name} PRIVATE ${arg_LIBRARIES} GTest::gtest)
    house_wrap(${name} PRIVATE ${arg_WRAP})
endfunction()

# Ends the configuration unless the setting is an IPv4 address, or with PORT perhaps ADDRESS:PORT.
function(house_check_address setting)
    cmake_parse_arguments(arg "PORT" "" "" ${ARGN})
    set(address "${${setting}}")
    set(port 1)
    if(arg_PORT AND address MATCHES "^([^:]*):([1-9][0-9]*)$")
        set(address "${CMAKE_MATCH_1}")
        set(port ${CMAKE_MATCH_2})
    endif()
    set(octet "(25[0-5]|2[0-4][0-9]|1[0-9][0-9]|[1-9]?[0-9])")
    if(NOT address MATCHES "^${octet}\\.${octet}\\.${octet}\\.${octet}$" OR port GREATER 65535)
        message(FATAL_ERROR "${setting} is no IPv4 address: ${${setting}}")
    endif()
endfunction()
