#  The test of the module loader. The files that it loads are built into a separate folder.

set(modules ${CMAKE_BINARY_DIR}/tests/modules)

#  open_test_module(NAME SOURCE [LIBRARY...])
function(open_test_module name source)
    add_library(open_module_${name} MODULE modules/${source}.cpp)
    target_link_libraries(open_module_${name} PRIVATE rdbopen_support ${ARGN})
    set_target_properties(open_module_${name} PROPERTIES
        OUTPUT_NAME rdbapix64-${name} LIBRARY_OUTPUT_DIRECTORY ${modules} CXX_VISIBILITY_PRESET hidden)
    add_dependencies(open_module_test open_module_${name})
endfunction()

addrpubd_unit_test(open_module_test
    SOURCES open_module_test.cpp
    LIBS rdbapi_open rdbopen_loader)
target_compile_definitions(open_module_test PRIVATE MODULES="${modules}")

#  The module `needy` needs this library. No folder that the loader searches contains it, so `needy` cannot be loaded.
add_library(needed_by_needy SHARED modules/foreign.cpp)
set_target_properties(needed_by_needy PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${modules}/elsewhere)

open_test_module(throwing throwing)
open_test_module(foreign foreign)
open_test_module(masked masked)
open_test_module(needy needy needed_by_needy)
foreach(name otherversion otherinterface noversion)
    open_test_module(${name} otherversion)
endforeach()
