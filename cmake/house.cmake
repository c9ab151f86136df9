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

# Frames stay walkable for the call stack of a crash report.
add_compile_options(-fno-omit-frame-pointer -ffunction-sections -fdata-sections)
add_compile_options(-Wall -Wextra -Werror -Wshadow -Wformat=2 -Wvla -Wundef -Wcast-qual -Wpointer-arith)
add_link_options(-Wl,--gc-sections -Wl,--as-needed)

# One folder is one static library; its include path is the root of the repository.
function(house_library name)
    add_library(${name} STATIC ${ARGN})
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
    target_compile_options(${name} PRIVATE -fno-exceptions -fno-rtti -fno-threadsafe-statics)
endfunction()

# A GoogleTest program over the objects that ship; WRAP lists the calls that the program replaces.
function(house_test name)
    cmake_parse_arguments(arg "" "" "SOURCES;LIBRARIES;WRAP;LABELS" ${ARGN})
    add_executable(${name} ${arg_SOURCES})
    target_link_libraries(${name} PRIVATE ${arg_LIBRARIES} GTest::gtest)
    foreach(call ${arg_WRAP})
        target_link_options(${name} PRIVATE -Wl,--wrap=${call})
    endforeach()
endfunction()
