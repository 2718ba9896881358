# Builds some programs and libraries in two folders and compares what came. Run by ctest; any failure ends it with an
# error.

include(${CMAKE_CURRENT_LIST_DIR}/Run.cmake)

# A cache of the compiler's output would compare a file with itself.
set(ENV{CCACHE_DISABLE} 1)
file(REMOVE_RECURSE ${SCRATCH})
file(COPY ${SOURCE}/ DESTINATION ${SCRATCH}/a PATTERN build EXCLUDE PATTERN .git EXCLUDE)
file(COPY ${SCRATCH}/a/ DESTINATION ${SCRATCH}/another/one)
foreach(folder a another/one)
    set(source ${SCRATCH}/${folder})
    run(${CMAKE_COMMAND} -G ${GENERATOR} -S ${source} -B ${source}/build -D CMAKE_CXX_COMPILER=${COMPILER}
        -D CMAKE_BUILD_TYPE=RelWithDebInfo -D VENDARA_TESTS=OFF)
    run(${CMAKE_COMMAND} --build ${source}/build
        --target vendara-pkgverify vendara-manifestkit vendara-eventlog vendara-sample)
    file(GLOB_RECURSE files RELATIVE ${source}/build ${source}/build/*.o ${source}/build/*.so.* ${source}/build/vendara-sample)
    foreach(file IN LISTS files)
        file(SHA256 ${source}/build/${file} digest)
        list(APPEND digests-${folder} "${file} ${digest}")
    endforeach()
    list(LENGTH files count)
    if(count LESS 5)
        message(FATAL_ERROR "only ${files} was built")
    endif()
endforeach()
foreach(one other IN ZIP_LISTS digests-a digests-another/one)
    if(NOT one STREQUAL other)
        message(FATAL_ERROR "${one} is ${other} in another folder")
    endif()
endforeach()
