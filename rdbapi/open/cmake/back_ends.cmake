#  Functions that add back ends to the build.

include(CheckLinkerFlag)
check_linker_flag(CXX LINKER:-z,pack-relative-relocs ADDRPUBD_PACKS_RELOCATIONS)

#  addrpubd_scheme(SCHEME BACK_END [PACKAGE...])
#
#  Adds a row to the table of schemes. PACKAGE...: the missing packages if the back end is left out, otherwise nothing.
function(addrpubd_scheme scheme back_end)
    list(JOIN ARGN " " packages)
    set_property(GLOBAL APPEND_STRING PROPERTY ADDRPUBD_BACK_END_ROWS
        "    {\"${scheme}\", \"${back_end}\", \"${packages}\"},\n")
endfunction()

#  addrpubd_leave_out(NAME PACKAGE...)
#
#  Reports a back end that is not built because packages are missing. The property ADDRPUBD_LEFT_OUT has one element
#  "NAME PACKAGE..." for each such back end. The end of the build prints these names and packages, and the library
#  reports the packages when a url has a scheme of this back end.
function(addrpubd_leave_out name)
    list(JOIN ARGN " " packages)
    message(STATUS "back end ${name} left out: not installed: ${packages}")
    set_property(GLOBAL APPEND PROPERTY ADDRPUBD_LEFT_OUT "${name} ${packages}")
    string(REPLACE - + scheme ${name})
    addrpubd_scheme(${scheme} ${name} ${ARGN})
endfunction()

#  addrpubd_back_end(NAME SOURCE...)
#
#  Adds the back end NAME: the static library rdbopen_NAME with the sources, and the module rdbapix64-NAME. The scheme
#  is NAME with "+" for each "-"; addrpubd_scheme adds further schemes. The descriptor is rdbapix64_NAME with "_" for
#  each "-". It is defined in NAME_module.cpp, again with "_" for each "-", or in module.cpp if that file does not
#  exist.
function(addrpubd_back_end name)
    string(REPLACE - + scheme ${name})
    string(REPLACE - _ symbol ${name})
    set(module module.cpp)
    if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${symbol}_module.cpp)
        set(module ${symbol}_module.cpp)
    endif()
    add_library(rdbopen_${name} STATIC ${ARGN} ${module})
    target_link_libraries(rdbopen_${name} PUBLIC rdbopen_support)
    #  The module and the static library each compile this file. In a unity build, the static library has it as a
    #  separate object, so that the linker need not take this object into the module.
    set_source_files_properties(${module} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)

    #  Exports only the descriptor.
    set(exports ${CMAKE_CURRENT_BINARY_DIR}/${name}.map)
    file(CONFIGURE OUTPUT ${exports} CONTENT "{ global: rdbapix64_${symbol}; local: *; };\n")
    add_library(rdbapix64-${name} MODULE ${module})
    target_link_libraries(rdbapix64-${name} PRIVATE rdbopen_${name})
    target_link_options(rdbapix64-${name} PRIVATE LINKER:--version-script,${exports})
    addrpubd_self_contained(rdbapix64-${name})

    cmake_path(GET CMAKE_CURRENT_SOURCE_DIR FILENAME folder)
    set_property(GLOBAL APPEND PROPERTY ADDRPUBD_BACK_END_FOLDERS ${folder})
    set_property(GLOBAL APPEND PROPERTY ADDRPUBD_BACK_ENDS ${name})
    set_property(GLOBAL APPEND PROPERTY ADDRPUBD_MODULES rdbapix64-${name})
    addrpubd_scheme(${scheme} ${name})
endfunction()

#  addrpubd_self_contained(TARGET)
#
#  Links the C++ run-time libraries statically into the shared object TARGET, so that the program, the client library
#  and each module have separate copies. In a sanitizer build, the shared object uses the program's copies instead.
function(addrpubd_self_contained target)
    set_target_properties(${target} PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})
    if(ADDRPUBD_SANITIZE)
        #  The run-time library of a sanitizer is linked into the executable, so its symbols are undefined here.
        target_link_options(${target} PRIVATE LINKER:-z,undefs)
    else()
        target_sources(${target} PRIVATE ${PROJECT_SOURCE_DIR}/rdbapi/open/module/terminate.cpp)
        target_link_options(${target} PRIVATE -static-libstdc++ -static-libgcc LINKER:--no-undefined
            LINKER:--gc-sections LINKER:--as-needed)
        if(ADDRPUBD_PACKS_RELOCATIONS)
            target_link_options(${target} PRIVATE LINKER:-z,pack-relative-relocs)
        endif()
    endif()
endfunction()

#  Writes the tables back_ends.inc for backends.cpp and linked_modules.inc for module/linked_modules.cpp.
function(addrpubd_write_back_ends)
    get_property(rows GLOBAL PROPERTY ADDRPUBD_BACK_END_ROWS)
    get_property(built GLOBAL PROPERTY ADDRPUBD_BACK_ENDS)
    set(linked "")
    foreach(name ${built})
        string(REPLACE - _ symbol ${name})
        string(APPEND linked "LINKED(${symbol}, \"${name}\")\n")
    endforeach()
    file(CONFIGURE OUTPUT back_ends.inc CONTENT "@rows@" @ONLY)
    file(CONFIGURE OUTPUT linked_modules.inc CONTENT "@linked@" @ONLY)
endfunction()
