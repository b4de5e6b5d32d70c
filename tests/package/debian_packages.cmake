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
    usr/lib/systemd/system/vx-registryd.service usr/share/dbus-1/system.d/com.tessalabs.Registry.conf
    usr/share/man/man8/vx-hwcheck.8.gz usr/share/man/man1/vxtool.1.gz
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

find_program(LINTIAN lintian)
if(LINTIAN)
    execute_process(COMMAND ${LINTIAN} ${packages} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT rc EQUAL 0 OR out MATCHES "[EW]: ")
        message(FATAL_ERROR "lintian:\n${out}${err}")
    endif()
endif()
