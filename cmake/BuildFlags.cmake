# Compiler flags shared by every target of the project.
#
# The generated protocol buffer code guards its enum setters with assert(), and that
# assert lives in inline functions of the generated headers. Whether it is live is
# therefore decided by every translation unit that includes those headers, so no unit
# of this project may be compiled with NDEBUG: we strip it from every configuration and
# undefine it explicitly, while release builds keep their optimisation.
foreach(lang C CXX)
    foreach(config RELEASE RELWITHDEBINFO MINSIZEREL)
        string(REGEX REPLACE "(^| )[-/]DNDEBUG( |$)" " " CMAKE_${lang}_FLAGS_${config}
                             "${CMAKE_${lang}_FLAGS_${config}}")
    endforeach()
endforeach()
set(CMAKE_C_FLAGS_RELEASE "-O2")
set(CMAKE_CXX_FLAGS_RELEASE "-O2")
add_compile_options(-UNDEBUG)

# Warnings for our own code. Generated code gets its own, quieter settings in its target.
add_library(project_warnings INTERFACE)
target_compile_options(project_warnings INTERFACE -Wall -Wextra)

option(SETVANE_SANITIZE "Build with address and undefined-behaviour sanitizers" OFF)
if(SETVANE_SANITIZE)
    add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
    add_link_options(-fsanitize=address,undefined)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        # clang links its sanitizer runtime statically into executables only, which leaves our
        # shared libraries (linked with --no-undefined) unresolved: use the shared runtime.
        execute_process(COMMAND ${CMAKE_CXX_COMPILER} --print-file-name=libclang_rt.asan-x86_64.so
                        OUTPUT_VARIABLE asan_runtime OUTPUT_STRIP_TRAILING_WHITESPACE)
        get_filename_component(asan_runtime_dir "${asan_runtime}" DIRECTORY)
        add_link_options(-shared-libsan "LINKER:-rpath,${asan_runtime_dir}")
    endif()
endif()

option(SETVANE_FUZZ "Also build libFuzzer programs of the fuzz targets (needs clang)" OFF)
if(SETVANE_FUZZ)
    # Coverage feedback from every library the targets reach, not only from the targets.
    add_compile_options(-fsanitize=fuzzer-no-link)
endif()
