# Builds the Debian packages of the build tree BUILD_DIR with cpack into
# WORK_DIR, unpacks them into a scratch root and checks the files each
# holds, their architecture (DEB_ARCH, default the build machine's), the
# declared dependencies and lintian's verdict (none expected, the hardening
# tags included). TEST_KEYS names the stored keys that are the committed
# test keys: then cpack must refuse the packages unless allowed, and mark
# them when allowed. A cross build's tree gives the EMULATOR that runs its
# programs.
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

# Not allowed: a build with the test keys makes no package.
execute_process(COMMAND cpack --config "${BUILD_DIR}/CPackConfig.cmake" -D CPACK_VX_ALLOW_TEST_KEYS=OFF
                WORKING_DIRECTORY "${WORK_DIR}" RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
file(GLOB packages "${WORK_DIR}/*.deb")
if(TEST_KEYS)
    if(rc EQUAL 0 OR packages OR NOT out MATCHES "The stored public keys are the committed test keys")
        message(FATAL_ERROR "cpack made packages of a build with the test keys (status ${rc}):\n${out}")
    endif()
    set(version_suffix "~testkeys")
    set(synopsis_suffix " \\(TEST KEYS\\)")
else()
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "cpack failed:\n${out}")
    endif()
    file(REMOVE ${packages})
endif()
# Allowed.
run(cpack --config "${BUILD_DIR}/CPackConfig.cmake" -D CPACK_VX_ALLOW_TEST_KEYS=ON)
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
if(NOT DEB_ARCH)
    run(dpkg --print-architecture)
    string(STRIP "${output}" DEB_ARCH)
endif()
run(dpkg-architecture -a${DEB_ARCH} -qDEB_HOST_MULTIARCH)
string(STRIP "${output}" multiarch)
set(dev_files
    usr/lib/${multiarch}/libcorvid.a usr/lib/${multiarch}/libvxhardware.a
    usr/lib/${multiarch}/libcorvid_assert_entry_archive.a usr/include/vx-hwcheck/hardware/context.h
    usr/include/vx-hwcheck/platform/registry.h usr/lib/${multiarch}/cmake/VxHwcheck/VxHwcheckConfig.cmake
    usr/share/doc/vx-hwcheck-dev/copyright)
# Field by package: what dpkg-deb -f must match.
set(fields
    "vx-hwcheck:Version:^0\\.1${version_suffix}\n$"
    "vx-hwcheck:Description:^start-up hardware check of the Veltrix signage player${synopsis_suffix}\n"
    # The programs link their C++ libraries from the archives: the C
    # library, zlib and vxtool's p11-kit (the system's token modules) are
    # the only shared ones left to declare.
    "vx-hwcheck:Depends:^dbus, systemd \\| systemd-sysusers, libc6 \\(>= 2\\.[0-9]+\\), libp11-kit0 \\(>= [^)]+\\), zlib1g \\(>= [^)]+\\)\n$"
    "vx-hwcheck-dev:Version:^0\\.1${version_suffix}\n$"
    "vx-hwcheck-dev:Multi-Arch:^same\n$"
    "vx-hwcheck-dev:Description:^development files of the Veltrix player's platform libraries${synopsis_suffix}\n")
foreach(package IN LISTS packages)
    get_filename_component(file "${package}" NAME)
    string(REGEX REPLACE "_.*" "" name "${file}")
    run(dpkg-deb -f "${package}" Architecture)
    string(STRIP "${output}" arch)
    if(NOT arch STREQUAL DEB_ARCH)
        message(FATAL_ERROR "${package} is for ${arch}, not ${DEB_ARCH}")
    endif()
    run(dpkg-deb -x "${package}" root)
    foreach(field IN LISTS fields)
        if(field MATCHES "^${name}:([^:]+):(.*)$")
            set(key "${CMAKE_MATCH_1}")
            set(expected "${CMAKE_MATCH_2}")
            run(dpkg-deb -f "${package}" ${key})
            if(NOT output MATCHES "${expected}")
                message(FATAL_ERROR "${name}: ${key} is '${output}', expected to match '${expected}'")
            endif()
        endif()
    endforeach()
    # No path names the build's configuration.
    run(dpkg-deb -c "${package}")
    if(output MATCHES "objects-")
        message(FATAL_ERROR "${name} holds a path of the build's configuration:\n${output}")
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

# lintian: no error or warning, and no hardening tag at any level (PIE,
# read-only relocations, immediate binding, fortified functions).
find_program(LINTIAN lintian)
if(LINTIAN)
    execute_process(COMMAND ${LINTIAN} --pedantic -I ${packages} RESULT_VARIABLE rc OUTPUT_VARIABLE out
                    ERROR_VARIABLE err)
    if(NOT rc EQUAL 0 OR out MATCHES "[EW]: " OR out MATCHES "hardening-")
        message(FATAL_ERROR "lintian:\n${out}${err}")
    endif()
    message("lintian --pedantic -I:\n${out}")
endif()
