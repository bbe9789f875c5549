# What differs where the library is built for Windows.

# All programs and DLLs in one folder, which is where that system looks for DLLs first, with the
# compiler's own beside them: the host's operator new has to be the library's, so there can be one
# C++ runtime only, a shared one.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
foreach(dll libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${dll}
        OUTPUT_VARIABLE path OUTPUT_STRIP_TRAILING_WHITESPACE)
    if(NOT EXISTS "${path}")
        message(FATAL_ERROR "${CMAKE_CXX_COMPILER} has no ${dll} to be given along")
    endif()
    list(APPEND MEMPAGER_RUNTIME_DLLS ${path})
endforeach()
file(COPY ${MEMPAGER_RUNTIME_DLLS} DESTINATION ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})

# Packages that are headers only are the same for all systems, but the folder that they lie in is
# full of this system's headers: those of the package alone are linked into a folder of their own.
function(mempager_headers target folder)
    set(own ${PROJECT_BINARY_DIR}/headers/${folder})
    find_path(MEMPAGER_${folder}_FOLDER ${folder} PATHS /usr/include NO_CMAKE_FIND_ROOT_PATH REQUIRED)
    file(MAKE_DIRECTORY ${own})
    file(CREATE_LINK ${MEMPAGER_${folder}_FOLDER}/${folder} ${own}/${folder} SYMBOLIC)
    add_library(${target} INTERFACE IMPORTED GLOBAL)
    target_include_directories(${target} INTERFACE ${own})
endfunction()

mempager_headers(Boost::headers boost)
if(MEMPAGER_TOOLS)
    mempager_headers(CLI11::CLI11 CLI)
    mempager_headers(nlohmann_json::nlohmann_json nlohmann)
endif()
