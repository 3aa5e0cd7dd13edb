# Compiler flags shared by every target of the project.

add_compile_options(-Wall -Wextra)
if(ZEL_WERROR)
    add_compile_options(-Werror)
endif()

# The estimator's results must be identical on every x86-64 machine: no fused
# multiply-add contraction and no host-specific instruction set.
add_compile_options(-ffp-contract=off)

if(ZEL_SANITIZE)
    add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined
                        -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
endif()

if(ZEL_BUILD_FUZZERS)
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        message(FATAL_ERROR "ZEL_BUILD_FUZZERS needs clang (CC=clang CXX=clang++)")
    endif()
    # Every library the fuzzers link is instrumented for coverage.
    add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
endif()
