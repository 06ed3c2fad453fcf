# The LLVM the pass plugin is built against: the one at LLVM_DIR when given,
# else LLVM QUARL_LLVM_VERSION, else the newest supported LLVM installed.
# A plugin loads only into the clang of its own LLVM major version, so each
# version is built in a build directory of its own, and the plugin's file
# name carries the version (quarl_llvm-N.so).
set(QUARL_LLVM_VERSION "" CACHE STRING
    "Major version of LLVM to build the pass plugin for (default: the newest installed)")
set(QUARL_LLVM_SUPPORTED 22 21 20 19 18 17 16 15 14)

# Where distributions put LLVM N's CMake package.
function(quarl_llvm_locations version out)
    set(${out}
        /usr/lib/llvm-${version}/lib/cmake/llvm            # Debian, Ubuntu
        /usr/lib64/llvm${version}/lib/cmake/llvm           # Fedora
        /opt/homebrew/opt/llvm@${version}/lib/cmake/llvm   # Homebrew
        /usr/local/opt/llvm@${version}/lib/cmake/llvm
        PARENT_SCOPE)
endfunction()

macro(quarl_find_llvm)
    # A cached LLVM_DIR of another version than the one asked for is
    # forgotten, so that changing QUARL_LLVM_VERSION in a build works.
    if(LLVM_DIR AND QUARL_LLVM_VERSION AND NOT LLVM_DIR MATCHES "llvm[-@]?${QUARL_LLVM_VERSION}/")
        unset(LLVM_DIR CACHE)
    endif()
    if(LLVM_DIR)
        find_package(LLVM CONFIG QUIET)
    else()
        set(quarl_llvm_candidates ${QUARL_LLVM_SUPPORTED})
        if(QUARL_LLVM_VERSION)
            set(quarl_llvm_candidates ${QUARL_LLVM_VERSION})
        endif()
        foreach(quarl_llvm_candidate IN LISTS quarl_llvm_candidates)
            quarl_llvm_locations(${quarl_llvm_candidate} quarl_llvm_paths)
            find_package(LLVM CONFIG QUIET NO_DEFAULT_PATH PATHS ${quarl_llvm_paths})
            if(LLVM_FOUND)
                break()
            endif()
        endforeach()
        if(NOT LLVM_FOUND AND NOT QUARL_LLVM_VERSION)
            find_package(LLVM CONFIG QUIET) # wherever CMake's own search finds one
        endif()
    endif()
    if(LLVM_FOUND AND QUARL_LLVM_VERSION AND NOT LLVM_VERSION_MAJOR EQUAL QUARL_LLVM_VERSION)
        message(FATAL_ERROR "Quarl: LLVM ${QUARL_LLVM_VERSION} was asked for, but LLVM_DIR "
                            "(${LLVM_DIR}) holds LLVM ${LLVM_PACKAGE_VERSION}")
    endif()
    if(LLVM_FOUND AND LLVM_VERSION_MAJOR LESS 14)
        message(STATUS "Quarl: LLVM ${LLVM_PACKAGE_VERSION} is older than 14; the pass plugin is not built")
        set(LLVM_FOUND FALSE)
    endif()
endmacro()
