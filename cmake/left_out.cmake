#  At the end of the build, prints the back ends that were left out and the packages that they need. Prints nothing if
#  all back ends were built.

get_property(left_out GLOBAL PROPERTY ADDRPUBD_LEFT_OUT)
if(NOT left_out)
    return()
endif()

set(schemes "")
set(packages "")
foreach(row IN LISTS left_out)
    separate_arguments(words UNIX_COMMAND "${row}")
    list(POP_FRONT words scheme)
    list(APPEND schemes ${scheme})
    list(APPEND packages ${words})
endforeach()
list(REMOVE_DUPLICATES packages)
list(JOIN schemes ", " schemes)
list(JOIN packages " " packages)

add_custom_target(left_out ALL
    COMMAND ${CMAKE_COMMAND} -E echo "Back ends left out of this build: ${schemes}"
    COMMAND ${CMAKE_COMMAND} -E echo "To include them, install these packages, then configure and build again: ${packages}"
    VERBATIM)
add_dependencies(left_out addrpubd rdbapix64 rdbopen_linked addrpubd-check)
