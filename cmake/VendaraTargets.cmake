# Settings that every target shares, and the functions that make targets.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
if(NOT CMAKE_BUILD_TYPE)
    set(CMAKE_BUILD_TYPE RelWithDebInfo)
endif()

add_library(vendara-options INTERFACE)
target_compile_options(vendara-options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast
    $<$<BOOL:${VENDARA_WERROR}>:-Werror>)
target_include_directories(vendara-options INTERFACE ${PROJECT_SOURCE_DIR})
if(VENDARA_SANITIZE)
    add_compile_options(-fsanitize=${VENDARA_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${VENDARA_SANITIZE})
endif()

# vendara_library(NAME SOURCES file... [DEPENDS public-target...] [PRIVATE private-target...])
# makes the static library of one folder.
function(vendara_library name)
    cmake_parse_arguments(arg "" "" "SOURCES;DEPENDS;PRIVATE" ${ARGN})
    add_library(${name} STATIC ${arg_SOURCES})
    target_include_directories(${name} PUBLIC
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/vendara>)
    target_link_libraries(${name} PUBLIC ${arg_DEPENDS} PRIVATE $<BUILD_INTERFACE:vendara-options> ${arg_PRIVATE})
endfunction()

# vendara_executable(NAME SOURCES file... [DEPENDS target...]) makes a program.
function(vendara_executable name)
    cmake_parse_arguments(arg "" "" "SOURCES;DEPENDS" ${ARGN})
    add_executable(${name} ${arg_SOURCES})
    target_link_libraries(${name} PRIVATE vendara-options ${arg_DEPENDS})
endfunction()
