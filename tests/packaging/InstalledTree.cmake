# Run by ctest; any failure ends it with an error.

include(${CMAKE_CURRENT_LIST_DIR}/Run.cmake)

file(REMOVE_RECURSE ${SCRATCH})
set(ENV{DESTDIR} ${SCRATCH}/root)
run(${CMAKE_COMMAND} --install ${BUILD})
set(ENV{DESTDIR})
set(tree ${SCRATCH}/root${PREFIX})

# A session bus finds the service, its unit starts the daemon, and systemd reports no problem.
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

# Manual pages have no errors. man ends with 0 all the same.
file(GLOB pages ${tree}/share/man/man?/*)
foreach(page IN LISTS pages)
    execute_process(COMMAND ${CMAKE_COMMAND} -E env LC_ALL=C.UTF-8 man --warnings -l -Tutf8 ${page}
        OUTPUT_QUIET ERROR_VARIABLE warnings COMMAND_ERROR_IS_FATAL ANY)
    if(warnings)
        message(FATAL_ERROR "${page}: ${warnings}")
    endif()
endforeach()

# Completion works in each shell. In zsh a function prints the arguments of the completed line.
set(ENV{PATH} ${tree}/bin:$ENV{PATH})
set(ENV{XDG_DATA_DIRS} ${tree}/share)
set(ENV{HOME} ${SCRATCH})
foreach(case "vendaractl --json re=remove restart" "vendara-sign --st=--strip" "vendara-devkit --sh=--shell")
    string(REGEX MATCH "(([a-z-]+).*)=(.*)" case ${case})
    set(words ${CMAKE_MATCH_3})
    run(bash -c [[. $0
        COMP_WORDS=($1) COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
        _vendara "${COMP_WORDS[0]}" "${COMP_WORDS[-1]}"
        [ "${COMPREPLY[*]}" = "$2" ] ]] ${tree}/share/bash-completion/completions/${CMAKE_MATCH_2} ${CMAKE_MATCH_1} ${words})
    expect(0 "^${words} $" fish -c "complete -C '${CMAKE_MATCH_1}' | cut -f 1 | tr '\\n' ' '")
endforeach()
file(WRITE ${SCRATCH}/complete.zsh [[
    zmodload zsh/zpty && zpty shell zsh -fi
    zpty -w shell "fpath=($1 \$fpath); autoload -U compinit; compinit -u -d $2"
    zpty -w shell 'vendaractl vendara-sign vendara-devkit() { print GOT:$0 $*: }'
    zpty -w shell $'vendaractl --json rem\t' && zpty -r shell output '*GOT:vendaractl --json remove:*' &&
    zpty -w shell $'vendara-sign --st\t' && zpty -r shell output '*GOT:vendara-sign --strip:*' &&
    zpty -w shell $'vendara-devkit --sh\t' && zpty -r shell output '*GOT:vendara-devkit --shell:*'
]])
run(zsh ${SCRATCH}/complete.zsh ${tree}/share/zsh/site-functions ${SCRATCH}/zcompdump)

# Each program for users reports its version. Its --help, its manual page and the words of its completion agree.
file(GLOB programs RELATIVE ${tree}/bin ${tree}/bin/*)
foreach(program IN LISTS programs)
    expect(0 "^${program} [0-9.]+\n$" ${program} --version)
    file(READ ${tree}/share/man/man1/${program}.1 manual)
    run(${program} --help)
    set(helps "${output}")
    set(commands "")
    if(output MATCHES "Subcommands:(.*)")
        string(REGEX MATCHALL "\n  [a-z]+" commands "${CMAKE_MATCH_1}")
    endif()
    foreach(command IN LISTS commands ITEMS "")
        string(STRIP "${command}" command)
        if(command AND NOT manual MATCHES "\n.It Cm ${command}[ \n]")
            message(FATAL_ERROR "the manual of ${program} lacks ${command}")
        endif()
        run(${program} ${command} --help)
        string(APPEND helps "${output}")
        string(REGEX MATCHALL "\n  (-h,)?--[a-z-]+" options "${output}")
        run(sh ${tree}/share/vendara/words ${program} ${command} -)
        foreach(option IN LISTS options)
            string(REGEX REPLACE ".*--" "" option ${option})
            if(NOT output MATCHES "--${option}\t" OR NOT manual MATCHES " -${option}[^a-z-]")
                message(FATAL_ERROR "the manual or the completion of ${program} ${command} lacks --${option}")
            endif()
        endforeach()
    endforeach()
    string(REGEX MATCHALL "Fl -[a-z-]+|It Cm [a-z]+" documented "${manual}")
    foreach(word IN LISTS documented)
        string(REGEX REPLACE "Fl |It Cm " "" word ${word})
        if(NOT helps MATCHES "-${word} |  ${word} ")
            message(FATAL_ERROR "the manual of ${program} has ${word}, its help does not")
        endif()
    endforeach()
endforeach()

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
# The same by pkg-config.
file(GLOB_RECURSE module ${tree}/vendara-zul.pc)
cmake_path(GET module PARENT_PATH modules)
set(ENV{PKG_CONFIG_PATH} ${modules})
function(build_with module source)
    run(pkg-config --cflags --libs ${module})
    separate_arguments(flags UNIX_COMMAND "${output}")
    if(SANITIZE)
        list(APPEND flags -fsanitize=${SANITIZE})
    endif()
    run(${COMPILER} -std=c++20 ${source} -o ${SCRATCH}/with-${module} ${flags} -Wl,-rpath,${modules}/..)
endfunction()
build_with(vendara-zul ${EXAMPLE}/main.cpp)
run(${SCRATCH}/with-vendara-zul --help)

# The README's clients run with what is installed alone.
build_with(vendara-client ${CLIENT}.cpp)
file(WRITE ${SCRATCH}/client/CMakeLists.txt "cmake_minimum_required(VERSION 3.25)
    project(client LANGUAGES CXX)
    find_package(vendara-client 1.0 REQUIRED)
    add_executable(client ${CLIENT}.cpp)
    target_link_libraries(client PRIVATE Vendara::client)")
run(${CMAKE_COMMAND} -S ${SCRATCH}/client -B ${SCRATCH}/client -D CMAKE_PREFIX_PATH=${tree}
    -D CMAKE_CXX_COMPILER=${COMPILER} ${flags})
run(${CMAKE_COMMAND} --build ${SCRATCH}/client)
set(ENV{DBUS_SESSION_BUS_ADDRESS} unix:path=${SCRATCH}/none)
file(GLOB_RECURSE python ${tree}/__init__.py)
cmake_path(GET python PARENT_PATH python)
set(ENV{PYTHONPATH} ${python}/..)
foreach(client ${SCRATCH}/with-vendara-client ${SCRATCH}/client/client "/usr/bin/python3;${CLIENT}.python")
    expect(2 "there is no session bus" ${client} sample.rpm)
endforeach()

set(ENV{HOME} ${SCRATCH})
set(system ${SCRATCH}/system)
set(manager ${SCRATCH}/build/package-manager ${system})
run(${tree}/bin/vendara-sign --make-test-ca ${system})
set(options-3.0 --target m68k --define "foreign 1")
foreach(version 1.0 2.0 3.0)
    run(rpmbuild -bb --define "_topdir ${SCRATCH}/rpm" --define "_rpmfilename sample-${version}.rpm"
        --define "sample_version ${version}" ${options-${version}} ${CMAKE_CURRENT_LIST_DIR}/sample.spec)
    set(package-${version} ${SCRATCH}/rpm/RPMS/sample-${version}.rpm)
endforeach()

# It changes no directory that it was not given, and none of another program.
file(WRITE ${SCRATCH}/foreign/apps/precious text)
expect(2 "usage" ${SCRATCH}/build/package-manager)
expect(2 "usage" ${SCRATCH}/build/package-manager --verbose)
expect(0 "usage" ${SCRATCH}/build/package-manager --help)
expect(2 "usage" ${manager} install)
expect(1 "foreign/apps is not this program's" ${SCRATCH}/build/package-manager foreign)
if(NOT EXISTS ${SCRATCH}/foreign/apps/precious OR EXISTS ${SCRATCH}/--help OR EXISTS ${SCRATCH}/apps)
    message(FATAL_ERROR "the example has touched what is not its own")
endif()
expect(1 "norvane.ZUL.Error.BadPackageSignature" ${manager} install ${package-1.0})
foreach(version 1.0 2.0 3.0)
    run(${tree}/bin/vendara-sign --developer-key ${system}/developer.key --developer-cert ${system}/developer.pem
        ${package-${version}})
endforeach()
expect(1 "norvane.ZUL.Error.BadPackageArchitecture" ${manager} install ${package-3.0})
# The example finds its directory also by a relative path.
execute_process(COMMAND ${SCRATCH}/build/package-manager system install ${package-1.0} WORKING_DIRECTORY ${SCRATCH}
    RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
if(output MATCHES "security.ima[^\n]*Operation not permitted")
    message("SKIPPED: only root may install packages here: ${output}")
    return()
endif()
if(NOT output MATCHES "com.example.sample 1.0-1\n" OR
   NOT EXISTS ${system}/apps/com.example.sample/current/quenra.pkg)
    message(FATAL_ERROR "the package is not installed: ${output}")
endif()
# What a refused package leaves would get into the next one.
expect(1 "norvane.ZUL.Error.DowngradeAttempt" ${manager} install ${package-1.0})
file(GLOB remains ${system}/temp/*)
if(remains)
    message(FATAL_ERROR "a refused package leaves ${remains}")
endif()
expect(0 "com.example.sample 2.0-1\n" ${manager} install ${package-2.0})
file(GLOB versions RELATIVE ${system}/apps/com.example.sample ${system}/apps/com.example.sample/*)
if(NOT versions STREQUAL "2.0-1;current")
    message(FATAL_ERROR "the upgrade leaves ${versions}")
endif()
# A package whose mappings cannot be made does not keep the program from its work.
file(WRITE ${system}/apps/com.example.sample/current/bin/tool text)
file(WRITE ${system}/system/usr/bin text)
expect(0 "com.example.sample: norvane.ZUL.Error.Filesystem.*com.example.sample 2.0-1\n" ${manager})
run(${manager} remove com.example.sample)
if(EXISTS ${system}/apps/com.example.sample)
    message(FATAL_ERROR "the package is not removed")
endif()
