# zel_add_library(NAME SOURCES... [LIBS ...])
#
# Adds one internal static library of a subsystem. Every such library is
# recorded in the global property ZEL_INTERNAL_LIBRARIES, so the tests and the
# tools can link the whole engine through the interface target zel::internal
# without each subsystem editing a shared list.
function(zel_add_library name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    add_library(${name} STATIC ${ARG_SOURCES})
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/include)
    target_compile_definitions(${name} PRIVATE ZEL_BUILDING_LIBRARY)
    if(ARG_LIBS)
        target_link_libraries(${name} PUBLIC ${ARG_LIBS})
    endif()
    set_property(GLOBAL APPEND PROPERTY ZEL_INTERNAL_LIBRARIES ${name})
endfunction()
