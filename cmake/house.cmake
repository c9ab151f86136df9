# Shared by all targets of the project. The daemon has no exceptions, no RTTI and no C++ runtime library;
# tools and tests may have all three.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)

set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")

# A crash report walks the frames, and its addresses must match the symbols file.
add_compile_options(-fno-omit-frame-pointer -fno-optimize-sibling-calls -ffunction-sections -fdata-sections)
# A function sets up its frame before anything else, or a crash there would hide its caller.
add_compile_options($<$<CXX_COMPILER_ID:GNU>:-fno-schedule-insns2> $<$<CXX_COMPILER_ID:GNU>:-fno-shrink-wrap>)
add_compile_options($<$<NOT:$<BOOL:$<TARGET_PROPERTY:POSITION_INDEPENDENT_CODE>>>:-fno-pie>)
add_link_options($<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-no-pie>)
add_compile_options(-Wall -Wextra -Werror -Wshadow -Wformat=2 -Wvla -Wundef -Wcast-qual -Wpointer-arith)
add_link_options(-Wl,--gc-sections -Wl,--as-needed)

# Shipped objects are also built for their symbols file, which must not depend on where the sources lie.
# Nothing needs unwind tables: a dump walks the frames, a debugger reads the symbols file.
set(house_shipped_options -fno-exceptions -fno-rtti -fno-unwind-tables -fno-asynchronous-unwind-tables
    -g -ffile-prefix-map=${PROJECT_SOURCE_DIR}/= -ffile-prefix-map=${CMAKE_BINARY_DIR}=.)

# A static library; its include path is the root of the repository.
function(house_library name)
    add_library(${name} STATIC ${ARGN})
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
    target_compile_options(${name} PRIVATE ${house_shipped_options} -fno-threadsafe-statics)
endfunction()

# Redirects every call from the target's programs to __wrap_CALL, which reaches the original as __real_CALL.
# If the C library's headers rename the call, so are these two.
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

# Fails the configuration unless the setting is an IPv4 address; with PORT, ADDRESS:PORT is also allowed.
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
