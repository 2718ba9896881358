# Run by ctest; any failure ends it with an error.

function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT status EQUAL 0)
        message(FATAL_ERROR "${ARGN}: ${status}\n${output}")
    endif()
    set(output "${output}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${SCRATCH})
set(ENV{DESTDIR} ${SCRATCH}/root)
run(${CMAKE_COMMAND} --install ${BUILD})
set(ENV{DESTDIR})
set(tree ${SCRATCH}/root${PREFIX})

# A session bus finds the service, its unit starts the daemon, and systemd has nothing to say against it.
set(unit ${tree}/lib/systemd/user/vendara-daemon.service)
file(READ ${unit} text)
string(REGEX MATCH "ExecStart=([^\n]+)" line "${text}")
set(daemon ${SCRATCH}/root${CMAKE_MATCH_1})
file(READ ${tree}/share/dbus-1/services/norvane.Vendara.service activation)
if(NOT activation MATCHES "Exec=${CMAKE_MATCH_1}\n" OR NOT EXISTS ${daemon})
    message(FATAL_ERROR "the activation file and the unit start different or absent programs")
endif()
string(REPLACE "ExecStart=" "ExecStart=${SCRATCH}/root" text "${text}")
set(copy ${SCRATCH}/vendara-daemon.service)
file(WRITE ${copy} "${text}")
set(ENV{XDG_RUNTIME_DIR} ${SCRATCH})
run(systemd-analyze --user --man=no verify ${copy})
if(output)
    message(FATAL_ERROR "${output}")
endif()
run(systemd-analyze --user --offline=true --threshold=60 --no-pager security ${copy})

# Manual pages have no errors, and the tool's completion loads and completes.
foreach(page man1/vendaractl.1 man5/zul.conf.5 man8/vendara-daemon.8)
    run(man --warnings -l -Tutf8 ${tree}/share/man/${page})
endforeach()
file(WRITE ${SCRATCH}/complete.sh [[
    . /usr/share/bash-completion/bash_completion && . "$1"
    COMP_WORDS=(vendaractl --json re) COMP_CWORD=2 COMP_LINE='vendaractl --json re' COMP_POINT=20
    _vendaractl && [[ "${COMPREPLY[*]}" == 'remove restart' ]]
]])
run(bash ${SCRATCH}/complete.sh ${tree}/share/bash-completion/completions/vendaractl)
run(${tree}/bin/vendaractl --version)

# Every installed header compiles by itself.
file(GLOB_RECURSE headers ${tree}/include/vendara/*.h)
foreach(header IN LISTS headers)
    run(${COMPILER} -std=c++20 -fsyntax-only -x c++ -I ${tree}/include/vendara ${header})
endforeach()

# A package manager outside this project, from the installed headers and libraries alone, installs a package.
if(SANITIZE)
    set(flags -D CMAKE_CXX_FLAGS=-fsanitize=${SANITIZE})
endif()
run(${CMAKE_COMMAND} -S ${EXAMPLE} -B ${SCRATCH}/build -D CMAKE_PREFIX_PATH=${tree} -D CMAKE_CXX_COMPILER=${COMPILER}
    ${flags})
run(${CMAKE_COMMAND} --build ${SCRATCH}/build)
set(ENV{HOME} ${SCRATCH})
run(rpmbuild -bb --define "_topdir ${SCRATCH}/rpm" --define "_rpmfilename sample.rpm"
    ${CMAKE_CURRENT_LIST_DIR}/sample.spec)
set(package ${SCRATCH}/rpm/RPMS/sample.rpm)
set(manager ${SCRATCH}/build/package-manager ${SCRATCH})
run(${tree}/bin/vendara-sign --make-test-ca ${SCRATCH})
execute_process(COMMAND ${manager} install ${package} RESULT_VARIABLE status ERROR_VARIABLE output)
if(status EQUAL 0 OR NOT output MATCHES "norvane.ZUL.Error.BadPackageSignature")
    message(FATAL_ERROR "a package without signatures is not refused: ${output}")
endif()
execute_process(COMMAND ${manager} install RESULT_VARIABLE status OUTPUT_QUIET ERROR_QUIET)
if(NOT status EQUAL 2)
    message(FATAL_ERROR "a command without its argument is not refused: ${status}")
endif()
run(${tree}/bin/vendara-sign --developer-key ${SCRATCH}/developer.key --developer-cert ${SCRATCH}/developer.pem
    ${package})
# The example finds its directory from within, too.
execute_process(COMMAND ${SCRATCH}/build/package-manager . install ${package} WORKING_DIRECTORY ${SCRATCH}
    OUTPUT_VARIABLE output ERROR_VARIABLE output)
if(NOT output MATCHES "com.example.sample 1.0-1\n" OR
   NOT EXISTS ${SCRATCH}/apps/com.example.sample/current/quenra.pkg)
    message(FATAL_ERROR "the package is not installed: ${output}")
endif()
# What a refused package leaves would get into the next one.
execute_process(COMMAND ${manager} install ${package} RESULT_VARIABLE status ERROR_VARIABLE output)
file(GLOB remains ${SCRATCH}/temp/*)
if(NOT status EQUAL 1 OR remains)
    message(FATAL_ERROR "a version that is installed is not refused without a trace: ${status} ${output} ${remains}")
endif()
run(${manager} remove com.example.sample)
if(EXISTS ${SCRATCH}/apps/com.example.sample)
    message(FATAL_ERROR "the package is not removed")
endif()
