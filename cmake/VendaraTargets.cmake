# Settings that every target shares, and the functions that make targets.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
if(NOT CMAKE_BUILD_TYPE)
    set(CMAKE_BUILD_TYPE RelWithDebInfo)
endif()

# Build outputs do not contain the path of the source or build directory. A debug build does, for debuggers.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)
if(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
    add_compile_options(-ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=${PROJECT_BINARY_DIR}=./build)
    # A program takes only the functions that it uses from the static libraries: the daemon shrinks by a quarter.
    add_compile_options(-ffunction-sections -fdata-sections)
    add_link_options(LINKER:--gc-sections)
endif()

add_library(vendara-options INTERFACE)
target_compile_options(vendara-options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast
    -Wconversion -Wsign-conversion
    # g++ 12 warns without cause of texts joined with "+".
    $<$<AND:$<CXX_COMPILER_ID:GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>
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
    target_compile_features(${name} PUBLIC cxx_std_20)
    target_link_libraries(${name} PUBLIC ${arg_DEPENDS} PRIVATE $<BUILD_INTERFACE:vendara-options> ${arg_PRIVATE})
endfunction()

# vendara_executable(NAME SOURCES file... [DEPENDS target...]) makes a program.
function(vendara_executable name)
    cmake_parse_arguments(arg "" "" "SOURCES;DEPENDS" ${ARGN})
    add_executable(${name} ${arg_SOURCES})
    target_link_libraries(${name} PRIVATE vendara-options ${arg_DEPENDS})
endfunction()

# vendara_platform_library(NAME name VERSION major SOURCES file... [PRIVATE target...]) makes the target vendara-NAME for
# a library of the device, lib<name>.so.<major>, whose interface header is in platform/NAME/. It is the reference
# implementation built from SOURCES, or with VENDARA_PLATFORM=device the installed library. The reference library exports
# its interface only; programs that use more of it link the same code as vendara-NAME-static.
function(vendara_platform_library)
    cmake_parse_arguments(arg "" "NAME;VERSION" "SOURCES;PRIVATE" ${ARGN})
    set(target vendara-${arg_NAME})
    if(VENDARA_PLATFORM STREQUAL "device")
        string(TOUPPER VENDARA_${arg_NAME}_LIBRARY found)
        find_library(${found} NAMES lib${arg_NAME}.so.${arg_VERSION} REQUIRED)
        # Imported: the installed CMake package stores only the name and searches for the library where it is used.
        add_library(Vendara::${arg_NAME} UNKNOWN IMPORTED GLOBAL)
        set_target_properties(Vendara::${arg_NAME} PROPERTIES IMPORTED_LOCATION ${${found}})
        add_library(${target} ALIAS Vendara::${arg_NAME})
        set_property(GLOBAL APPEND PROPERTY VENDARA_DEVICE_LIBRARIES lib${arg_NAME}.so.${arg_VERSION})
    elseif(VENDARA_PLATFORM STREQUAL "reference")
        vendara_library(${target}-static SOURCES ${arg_SOURCES} DEPENDS ${arg_PRIVATE})
        add_library(${target} SHARED $<TARGET_OBJECTS:${target}-static>)
        set_target_properties(${target}-static PROPERTIES
            CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
        set_target_properties(${target} PROPERTIES LINKER_LANGUAGE CXX
            OUTPUT_NAME ${arg_NAME} VERSION ${arg_VERSION} SOVERSION ${arg_VERSION})
        target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
        target_link_libraries(${target} PRIVATE ${arg_PRIVATE})
        target_link_options(${target} PRIVATE LINKER:--exclude-libs,ALL)
        install(TARGETS ${target} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_SKIP)
    else()
        message(FATAL_ERROR "VENDARA_PLATFORM is \"${VENDARA_PLATFORM}\": it has to be reference or device")
    endif()
endfunction()
