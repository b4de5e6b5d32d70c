# Run by cpack after it made the packages (CPACK_POST_BUILD_SCRIPTS): marks
# the -dev package "Multi-Arch: same", so that the packages of two
# architectures install side by side (their libraries and CMake package are
# in the multiarch directory, the rest is the same file in both). CPack's DEB
# generator has no such field: the package is unpacked, the field added to
# its control file, and the package built again.
foreach(package IN LISTS CPACK_PACKAGE_FILES)
    get_filename_component(name "${package}" NAME)
    if(NOT name MATCHES "^vx-hwcheck-dev_.*\\.deb$")
        continue()
    endif()
    set(tree "${package}.tree")
    file(REMOVE_RECURSE "${tree}")
    execute_process(COMMAND dpkg-deb --raw-extract "${package}" "${tree}" RESULT_VARIABLE status)
    if(NOT status EQUAL 0)
        message(FATAL_ERROR "dpkg-deb --raw-extract ${package} failed")
    endif()
    file(READ "${tree}/DEBIAN/control" control)
    string(STRIP "${control}" control)
    if(NOT control MATCHES "\nMulti-Arch:")
        file(WRITE "${tree}/DEBIAN/control" "${control}\nMulti-Arch: same\n")
    endif()
    execute_process(COMMAND dpkg-deb --root-owner-group --build "${tree}" "${package}"
                    OUTPUT_QUIET RESULT_VARIABLE status)
    file(REMOVE_RECURSE "${tree}")
    if(NOT status EQUAL 0)
        message(FATAL_ERROR "dpkg-deb --build ${package} failed")
    endif()
endforeach()
