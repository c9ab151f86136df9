# Installs no more bytes than the device needs, and beside each program a file with all its names and lines,
# to read a crash report on another machine.

set(LUMD_STRIP all CACHE STRING "Symbols stripped for the device: all, all but function names, none")
set_property(CACHE LUMD_STRIP PROPERTY STRINGS all names none)
if(NOT LUMD_STRIP MATCHES "^(all|names|none)$")
    message(FATAL_ERROR "LUMD_STRIP is all, names or none, not ${LUMD_STRIP}")
endif()

# Component "device" goes onto the device, below the prefix; component "symbols" lies where a debugger looks
# for it.
function(house_ship target destination)
    set(shipped ${CMAKE_BINARY_DIR}/shipped/${target})
    set(strip_all --strip-all)
    set(strip_names --strip-all --keep-symbols=${shipped}.names)
    set(strip_none)
    add_custom_command(OUTPUT ${shipped} ${shipped}.debug
        COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/shipped
        COMMAND ${CMAKE_NM} --defined-only --format=posix $<TARGET_FILE:${target}> |
            sed -nE "s/ [tTwW] .*//p" > ${shipped}.names
        COMMAND ${CMAKE_OBJCOPY} --only-keep-debug $<TARGET_FILE:${target}> ${shipped}.debug
        COMMAND ${CMAKE_OBJCOPY} ${strip_${LUMD_STRIP}} --add-gnu-debuglink=${shipped}.debug
            $<TARGET_FILE:${target}> ${shipped}
        DEPENDS ${target}
        VERBATIM)
    add_custom_target(${target}_shipped ALL DEPENDS ${shipped})
    install(PROGRAMS ${shipped} DESTINATION ${destination} COMPONENT device)
    install(FILES ${shipped}.debug DESTINATION lib/debug${CMAKE_INSTALL_PREFIX}/${destination} COMPONENT symbols
        PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endfunction()
