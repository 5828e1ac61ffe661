# Settings that every target of this project shares.

set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE Release CACHE STRING "" FORCE)
endif()

# Hardening, as Debian has it: overflows of buffers end the process instead of running what was written there, and what the
# loader has bound is read-only. Fortified calls need optimisation, and the sanitizers see more without them.
set(kestrune_hardening -fstack-protector-strong -Wformat -Werror=format-security)
if(NOT KESTRUNE_SANITIZER AND NOT CMAKE_CXX_FLAGS MATCHES "_FORTIFY_SOURCE")
    list(APPEND kestrune_hardening
         $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE>
         $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-D_FORTIFY_SOURCE=2>)
endif()
if(UNIX AND NOT APPLE)
    set(kestrune_hardening_links -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
endif()

# kestrune_precompile(name): the headers that most files of a large target read, read once. The presets ask for it; what
# clang-tidy reads is without it, and sees whether each file includes what it uses.
option(KESTRUNE_PRECOMPILE "Precompile the headers of the dependencies" OFF)
function(kestrune_precompile name)
    if(KESTRUNE_PRECOMPILE)
        target_precompile_headers(${name} PRIVATE
            <algorithm> <array> <cmath> <functional> <memory> <numbers> <optional> <ranges> <string> <vector>
            <Eigen/Dense> <opencv2/calib3d.hpp> <opencv2/core.hpp> <opencv2/imgproc.hpp> ${ARGN})
    endif()
endfunction()

# kestrune_target(name): C++20, warnings, sanitizer, and floating point that does not depend on the compiler's mood: no
# fused multiply-add may be formed behind our back, or two machines would disagree in the last bit. Assertions of OpenCV
# carry the name of their file: it starts in this tree, so that what is installed does not tell where it was built.
# Gcc 12 loses a narrowing from double to float and back where it makes vectors of straight-line code, so that a number
# that is to have single precision keeps double: it makes vectors of loops only.
function(kestrune_target name)
    target_compile_features(${name} PRIVATE cxx_std_20)
    set_target_properties(${name} PROPERTIES CXX_EXTENSIONS OFF)
    target_compile_options(${name} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-fno-tree-slp-vectorize>)
    target_compile_options(${name} PRIVATE -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
    target_compile_options(${name} PRIVATE -ffp-contract=off -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
                                           -Woverloaded-virtual -Wcast-align -Wunused -Wsign-conversion)
    target_compile_options(${name} PRIVATE ${kestrune_hardening} -fno-semantic-interposition)
    target_link_options(${name} PRIVATE ${kestrune_hardening_links})
    if(KESTRUNE_WERROR)
        target_compile_options(${name} PRIVATE -Werror)
    endif()
    if(KESTRUNE_SANITIZER STREQUAL "address")
        target_compile_options(${name} PRIVATE -fsanitize=address,undefined -fno-sanitize-recover=all
                                               -fno-omit-frame-pointer)
        # Under the sanitizers gcc's flow analysis sees paths through the checks that no run can take.
        target_compile_options(${name} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
        target_link_options(${name} PRIVATE -fsanitize=address,undefined)
    elseif(KESTRUNE_SANITIZER STREQUAL "thread")
        target_compile_options(${name} PRIVATE -fsanitize=thread -fno-omit-frame-pointer)
        target_link_options(${name} PRIVATE -fsanitize=thread)
    endif()
endfunction()

# kestrune_manual(program component DEPENDENCY...): the manual page of a program, which says what its --help says. A
# sanitizer's program may not start on every machine, and needs none.
function(kestrune_manual program component)
    if(CMAKE_CROSSCOMPILING OR KESTRUNE_SANITIZER)
        return()
    endif()
    cmake_path(GET program FILENAME name)
    if(TARGET ${program})
        set(program $<TARGET_FILE:${program}>)
    endif()
    set(script ${PROJECT_SOURCE_DIR}/scripts/manual.sh)
    set(page ${CMAKE_CURRENT_BINARY_DIR}/${name}.1.gz)
    add_custom_command(OUTPUT ${page} VERBATIM
        COMMAND ${script} ${program} ${PROJECT_VERSION} ${page} DEPENDS ${ARGN} ${script})
    add_custom_target(${name}_manual ALL DEPENDS ${page})
    install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT ${component})
endfunction()
