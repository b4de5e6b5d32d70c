# Builds the Debian packages of the build tree BUILD_DIR with cpack into
# WORK_DIR, unpacks them into a scratch root and checks the files each
# holds, their architecture (DEB_ARCH, default the build machine's), the
# declared dependencies and lintian's verdict (none expected). A cross
# build's tree gives the EMULATOR that runs its programs.
file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}/root")
function(run)
    execute_process(COMMAND ${ARGN} WORKING_DIRECTORY "${WORK_DIR}" RESULT_VARIABLE rc
                    OUTPUT_VARIABLE out ERROR_VARIABLE out)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "${ARGN} failed:\n${out}")
    endif()
    set(output "${out}" PARENT_SCOPE)
endfunction()
run(cpack --config "${BUILD_DIR}/CPackConfig.cmake")
file(GLOB packages "${WORK_DIR}/*.deb")
list(LENGTH packages count)
if(NOT count EQUAL 2)
    message(FATAL_ERROR "expected two packages, got: ${packages}")
endif()

set(runtime_files
    etc/init.d/vx-hwcheck usr/sbin/vx-hwcheck usr/bin/vxtool usr/sbin/vx-registryd
    usr/lib/systemd/system/vx-hwcheck.service usr/lib/systemd/system/veltrix-player.target
    usr/lib/systemd/system/vx-registryd.service usr/lib/systemd/system/vx-hwcheck-devices.service
    usr/lib/vx-hwcheck/wait-devices usr/lib/sysusers.d/vx-registry.conf
    usr/share/dbus-1/system.d/com.tessalabs.Registry.conf
    usr/share/man/man8/vx-hwcheck.8.gz usr/share/man/man1/vxtool.1.gz
    usr/share/vx-hwcheck/schemas/vxtool-report.schema.json
    usr/share/doc/vx-hwcheck/copyright usr/share/doc/vx-hwcheck/changelog.gz)
set(dev_files
    usr/lib/libcorvid.a usr/lib/libvxhardware.a usr/include/vx-hwcheck/hardware/context.h
    usr/include/vx-hwcheck/platform/registry.h usr/lib/cmake/VxHwcheck/VxHwcheckConfig.cmake
    usr/share/doc/vx-hwcheck-dev/copyright)
if(NOT DEB_ARCH)
    run(dpkg --print-architecture)
    string(STRIP "${output}" DEB_ARCH)
endif()
foreach(package IN LISTS packages)
    run(dpkg-deb -f "${package}" Architecture)
    string(STRIP "${output}" arch)
    if(NOT arch STREQUAL DEB_ARCH)
        message(FATAL_ERROR "${package} is for ${arch}, not ${DEB_ARCH}")
    endif()
    run(dpkg-deb -x "${package}" root)
    run(dpkg-deb -f "${package}" Depends)
    if(package MATCHES "/vx-hwcheck_[^/]*$" AND NOT output MATCHES "libgcrypt20 \\(>=")
        message(FATAL_ERROR "vx-hwcheck does not declare its shared libraries:\n${output}")
    endif()
endforeach()
foreach(file IN LISTS runtime_files dev_files)
    if(NOT EXISTS "${WORK_DIR}/root/${file}")
        message(FATAL_ERROR "no ${file} in the packages")
    endif()
endforeach()
run(${EMULATOR} "${WORK_DIR}/root/usr/bin/vxtool" --help)

# The units' sandboxes as systemd rates them (0 is shut tight, 10 wide
# open): printed, and at most the goal of each.
foreach(unit_goal vx-registryd.service:2.0 vx-hwcheck.service:5.0)
    string(REPLACE ":" ";" unit_goal "${unit_goal}")
    list(GET unit_goal 0 unit)
    list(GET unit_goal 1 goal)
    run(systemd-analyze security --offline=yes --no-pager "root/usr/lib/systemd/system/${unit}")
    if(NOT output MATCHES "Overall exposure level for ${unit}: ([0-9]+\\.[0-9]) ([A-Z]+)")
        message(FATAL_ERROR "systemd-analyze security gives no exposure level for ${unit}:\n${output}")
    endif()
    message("${unit}: exposure ${CMAKE_MATCH_1} ${CMAKE_MATCH_2} (goal at most ${goal})")
    if(CMAKE_MATCH_1 GREATER goal)
        message(FATAL_ERROR "${unit} is rated ${CMAKE_MATCH_1}, above its goal of ${goal}:\n${output}")
    endif()
endforeach()

find_program(LINTIAN lintian)
if(LINTIAN)
    execute_process(COMMAND ${LINTIAN} ${packages} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT rc EQUAL 0 OR out MATCHES "[EW]: ")
        message(FATAL_ERROR "lintian:\n${out}${err}")
    endif()
endif()
