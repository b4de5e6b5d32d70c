# Cross builds on Debian: the development packages that cannot be installed
# for the target architecture beside the build machine's own (libgcrypt's and
# libgpg-error's -dev packages would replace their amd64 twins). Their
# run-time libraries are installed through multiarch and the -dev packages
# downloaded by scripts/install-deps-arm64; here they are unpacked into the
# build tree, their pkg-config files pointed at it and PKG_CONFIG_PATH set so
# that pkg_check_modules finds them. Sets VX_DEB_ARCH (arm64, ...),
# VX_CROSS_PKG_CONFIG_PATH (what PKG_CONFIG_PATH is set to) and
# VX_CROSS_ARCHIVE_DIR (their static archives).
function(vx_cross_dev_packages)
    execute_process(COMMAND dpkg-architecture -t${CMAKE_LIBRARY_ARCHITECTURE} -qDEB_HOST_ARCH
                    OUTPUT_VARIABLE VX_DEB_ARCH OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET
                    RESULT_VARIABLE status)
    if(NOT status EQUAL 0 OR VX_DEB_ARCH STREQUAL "")
        message(FATAL_ERROR "no Debian architecture for ${CMAKE_LIBRARY_ARCHITECTURE} (dpkg-architecture)")
    endif()
    set(VX_CROSS_DEBS "/var/cache/vx-hwcheck/${VX_DEB_ARCH}" CACHE PATH
        "Where scripts/install-deps-arm64 keeps the -dev packages the cross build unpacks")

    # -dev package, the installed library whose version it must have.
    set(debs)
    foreach(pair libgcrypt20-dev:libgcrypt20 libgpg-error-dev:libgpg-error0)
        string(REPLACE ":" ";" pair "${pair}")
        list(GET pair 0 dev)
        list(GET pair 1 lib)
        execute_process(COMMAND dpkg-query -W -f=\${Version} ${lib}:${VX_DEB_ARCH}
                        OUTPUT_VARIABLE version RESULT_VARIABLE status ERROR_QUIET)
        string(REPLACE ":" "%3a" file_version "${version}")
        set(deb "${VX_CROSS_DEBS}/${dev}_${file_version}_${VX_DEB_ARCH}.deb")
        if(NOT status EQUAL 0 OR NOT EXISTS "${deb}")
            message(FATAL_ERROR "The cross build needs ${lib}:${VX_DEB_ARCH} installed and ${deb}: "
                                "run scripts/install-deps")
        endif()
        list(APPEND debs "${deb}")
    endforeach()

    set(dir "${PROJECT_BINARY_DIR}/cross-dev")
    set(libdir "${dir}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}")
    set(archive_dir "${dir}/archives")
    set(stamp "${PROJECT_BINARY_DIR}/cross-dev.unpacked")
    set(stamp_text "archives kept;${debs}")
    set(unpacked "")
    if(EXISTS "${stamp}")
        file(READ "${stamp}" unpacked)
    endif()
    if(NOT unpacked STREQUAL stamp_text)
        file(REMOVE_RECURSE "${dir}")
        file(MAKE_DIRECTORY "${dir}")
        foreach(deb IN LISTS debs)
            message(STATUS "Unpacking ${deb}")
            execute_process(COMMAND dpkg-deb -x "${deb}" "${dir}" RESULT_VARIABLE status)
            if(NOT status EQUAL 0)
                message(FATAL_ERROR "dpkg-deb -x ${deb} failed")
            endif()
        endforeach()

        # The pkg-config files name /usr: point them at the unpacked tree. The
        # multiarch include directory (gpg-error.h) is the compiler's own only
        # under /usr, so it joins the flags.
        file(GLOB pcs "${libdir}/pkgconfig/*.pc")
        foreach(pc IN LISTS pcs)
            file(READ "${pc}" text)
            string(REGEX REPLACE "(^|\n)prefix=/usr\n" "\\1prefix=${dir}/usr\n" text "${text}")
            string(REGEX REPLACE "\nCflags:[^\n]*" "\\0 -I\${includedir}/${CMAKE_LIBRARY_ARCHITECTURE}"
                   text "${text}")
            file(WRITE "${pc}" "${text}")
        endforeach()
        # The link-time names (libgcrypt.so -> libgcrypt.so.20.4.1) point at the
        # installed libraries; the static archives move to a directory of their
        # own (VX_CROSS_ARCHIVE_DIR, for the programs' static link), so that a
        # missing shared library fails a shared link instead of linking the
        # archive.
        file(GLOB links "${libdir}/*.so")
        foreach(link IN LISTS links)
            file(READ_SYMLINK "${link}" target)
            if(NOT IS_ABSOLUTE "${target}")
                foreach(candidate /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE} /lib/${CMAKE_LIBRARY_ARCHITECTURE})
                    if(EXISTS "${candidate}/${target}")
                        file(REMOVE "${link}")
                        file(CREATE_LINK "${candidate}/${target}" "${link}" SYMBOLIC)
                        break()
                    endif()
                endforeach()
            endif()
        endforeach()
        file(GLOB archives "${libdir}/*.a")
        file(MAKE_DIRECTORY "${archive_dir}")
        foreach(archive IN LISTS archives)
            get_filename_component(name "${archive}" NAME)
            file(RENAME "${archive}" "${archive_dir}/${name}")
        endforeach()
        file(WRITE "${stamp}" "${stamp_text}")
    endif()

    set(ENV{PKG_CONFIG_PATH} "${libdir}/pkgconfig")
    set(VX_CROSS_PKG_CONFIG_PATH "${libdir}/pkgconfig" PARENT_SCOPE)
    set(VX_DEB_ARCH "${VX_DEB_ARCH}" PARENT_SCOPE)
    set(VX_CROSS_ARCHIVE_DIR "${archive_dir}" PARENT_SCOPE)
endfunction()
vx_cross_dev_packages()
