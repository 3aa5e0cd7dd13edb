# zel_add_library(NAME SOURCES... [LIBS ...])
#
# One internal static library. Its dependencies are stated with LIBS and nothing
# else: a library that needs another part names it, so the link order follows the
# dependency order (api -> remote, local -> tiles -> spi -> core).
function(zel_add_library name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    add_library(${name} STATIC ${ARG_SOURCES})
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/include)
    target_compile_definitions(${name} PRIVATE ZEL_BUILDING_LIBRARY)
    if(ARG_LIBS)
        target_link_libraries(${name} PUBLIC ${ARG_LIBS})
    endif()
endfunction()
