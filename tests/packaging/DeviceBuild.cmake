# Builds and installs for a device, whose libraries the reference ones represent, and builds the example of a package
# manager with these libraries in another folder. Run by ctest; any failure ends it with an error.

include(${CMAKE_CURRENT_LIST_DIR}/Run.cmake)

file(REMOVE_RECURSE ${SCRATCH})
file(COPY ${LIBRARIES} DESTINATION ${SCRATCH}/build-machine)
run(${CMAKE_COMMAND} -G ${GENERATOR} -S ${SOURCE} -B ${SCRATCH}/build -D CMAKE_CXX_COMPILER=${COMPILER}
    -D CMAKE_BUILD_TYPE=${BUILD_TYPE} -D CMAKE_CXX_FLAGS_DEBUG=${FLAGS}
    -D VENDARA_PLATFORM=device -D CMAKE_LIBRARY_PATH=${SCRATCH}/build-machine
    -D VENDARA_TESTS=OFF)
run(${CMAKE_COMMAND} --build ${SCRATCH}/build)
set(ENV{DESTDIR} ${SCRATCH}/root)
run(${CMAKE_COMMAND} --install ${SCRATCH}/build)
set(ENV{DESTDIR})
set(tree ${SCRATCH}/root${PREFIX})

# The device has its libraries and its keys; the tools that make test keys are for other machines.
file(GLOB_RECURSE platform ${tree}/*libeventlog* ${tree}/*libpkgverify* ${tree}/*vendara-sign* ${tree}/*vendara-devkit*)
if(platform)
    message(FATAL_ERROR "installed for a device: ${platform}")
endif()

# Nothing that others build with has a path of this machine in it.
file(GLOB_RECURSE exported ${tree}/*.cmake ${tree}/*.h ${tree}/*.pc ${tree}/*.service)
foreach(file IN LISTS exported)
    file(READ ${file} text)
    foreach(path ${SCRATCH} ${SOURCE})
        string(FIND "${text}" ${path} found)
        if(NOT found EQUAL -1)
            message(FATAL_ERROR "${file} has the path ${path} in it")
        endif()
    endforeach()
endforeach()

file(RENAME ${SCRATCH}/build-machine ${SCRATCH}/device)
set(example ${CMAKE_COMMAND} -S ${EXAMPLE} -B ${SCRATCH}/example -D CMAKE_PREFIX_PATH=${tree}
    -D CMAKE_CXX_COMPILER=${COMPILER})
expect(1 "the device's library libeventlog.so.1[ \n]+is[ \n]+missing" ${example})
run(${example} -D CMAKE_LIBRARY_PATH=${SCRATCH}/device)
run(${CMAKE_COMMAND} --build ${SCRATCH}/example)
set(ENV{LD_LIBRARY_PATH} ${SCRATCH}/device)
run(${SCRATCH}/example/package-manager ${SCRATCH}/system)
run(${tree}/bin/vendaractl --version)
