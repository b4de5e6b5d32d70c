# The libraries the project builds on, and how its programs link them.
#
# With VX_STATIC_DEPENDENCIES (the default, but in sanitizer and fuzz builds)
# every program of this build links the static archives Debian ships of
# boost, dbus-c++, libdbus, libgcrypt and libgpg-error, fmt header-only, and
# the C++ run-time (vx_program): the check's process then loads the C
# library and zlib, where it loaded twenty shared libraries, and the loader
# binds a few hundred symbols instead of some four thousand (see "Linking
# the player's programs" in docs/design.md). The installed libraries (the
# -dev package) name the shared libraries for the programs that link them
# ($<INSTALL_INTERFACE:...>).
#
# Sets VX_FMT, VX_GCRYPT and VX_DBUSCXX: what a library links for fmt,
# libgcrypt and dbus-c++, in the build and once installed. Boost and zlib
# keep their own targets' names in both.
if(VX_SANITIZE OR VX_FUZZ)
    set(static_default OFF)
else()
    set(static_default ON)
endif()
option(VX_STATIC_DEPENDENCIES
       "Link the programs with the static archives of their dependencies and the C++ run-time"
       ${static_default})
# zlib stays shared: it is in every Debian system, and a copy of it inside
# a program is a copy that Debian's security updates miss (lintian's
# embedded-library).
if(VX_STATIC_DEPENDENCIES)
    set(Boost_USE_STATIC_LIBS ON)
endif()

find_package(fmt 9 REQUIRED)
find_package(Boost 1.74 REQUIRED COMPONENTS filesystem thread chrono iostreams)
find_package(ZLIB REQUIRED)
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(LIBGCRYPT REQUIRED IMPORTED_TARGET libgcrypt)
pkg_check_modules(DBUSCXX REQUIRED IMPORTED_TARGET dbus-c++-1)
find_package(nlohmann_json 3 REQUIRED)

# An imported target of the static archives that pkg-config lists for a
# module found with prefix (pkg-config --static --libs), with the module's
# compile flags; the libraries named after WITHOUT are left out.
function(vx_static_module target prefix)
    cmake_parse_arguments(PARSE_ARGV 2 arg "" "" "WITHOUT")
    set(archives)
    foreach(name IN LISTS ${prefix}_STATIC_LIBRARIES)
        if(name IN_LIST arg_WITHOUT)
            continue()
        endif()
        find_library(VX_ARCHIVE_${name} NAMES lib${name}.a
                     HINTS ${${prefix}_STATIC_LIBRARY_DIRS} ${VX_CROSS_ARCHIVE_DIR})
        if(NOT VX_ARCHIVE_${name})
            message(FATAL_ERROR "No static archive lib${name}.a (${prefix}): its -dev package ships one "
                                "(scripts/install-deps); or configure with -DVX_STATIC_DEPENDENCIES=OFF")
        endif()
        list(APPEND archives "${VX_ARCHIVE_${name}}")
    endforeach()
    add_library(${target} INTERFACE IMPORTED)
    set_target_properties(${target} PROPERTIES
        INTERFACE_INCLUDE_DIRECTORIES "${${prefix}_INCLUDE_DIRS}"
        INTERFACE_COMPILE_OPTIONS "${${prefix}_CFLAGS_OTHER}"
        INTERFACE_LINK_LIBRARIES "${archives};Threads::Threads")
endfunction()

if(VX_STATIC_DEPENDENCIES)
    # Boost's static iostreams does not name the zlib its gzip filters use.
    set_property(TARGET Boost::iostreams APPEND PROPERTY INTERFACE_LINK_LIBRARIES ZLIB::ZLIB)
    vx_static_module(vx_static_gcrypt LIBGCRYPT)
    # libdbus's archive refers to libsystemd for a server's socket
    # activation (sd_listen_fds, sd_is_socket), which no program of the
    # player serves; Debian ships no libsystemd archive, and the shared one
    # would bring six more libraries, among them a second libgcrypt. The
    # two functions come from lib/platform/no_socket_activation.c instead.
    vx_static_module(vx_static_dbuscxx DBUSCXX WITHOUT systemd)
    set_property(TARGET vx_static_dbuscxx APPEND PROPERTY INTERFACE_LINK_LIBRARIES corvid_no_socket_activation)
    set(build_fmt fmt::fmt-header-only)
    set(build_gcrypt vx_static_gcrypt)
    set(build_dbuscxx vx_static_dbuscxx)
else()
    set(build_fmt fmt::fmt)
    set(build_gcrypt PkgConfig::LIBGCRYPT)
    set(build_dbuscxx PkgConfig::DBUSCXX)
endif()
set(VX_FMT "$<BUILD_INTERFACE:${build_fmt}>;$<INSTALL_INTERFACE:fmt::fmt>")
set(VX_GCRYPT "$<BUILD_INTERFACE:${build_gcrypt}>;$<INSTALL_INTERFACE:PkgConfig::LIBGCRYPT>")
set(VX_DBUSCXX "$<BUILD_INTERFACE:${build_dbuscxx}>;$<INSTALL_INTERFACE:PkgConfig::DBUSCXX>")

# How every program of the build links (vx_program, lib/platform): the C++
# run-time from its archives too with VX_STATIC_DEPENDENCIES; only the
# shared libraries a program uses; relocations read-only after start-up,
# every symbol bound at start-up, and the relative ones packed.
set(VX_PROGRAM_LINK_OPTIONS LINKER:--as-needed LINKER:-O1 LINKER:-z,relro LINKER:-z,now)
# Packed relative relocations where the linker packs them (binutils 2.38 for
# amd64, 2.41 for arm64: Debian 12's arm64 linker ignores the option with a
# warning at every link).
include(CheckCXXSourceCompiles)
set(CMAKE_REQUIRED_LINK_OPTIONS LINKER:-z,pack-relative-relocs)
check_cxx_source_compiles("int main() { return 0; }" VX_LINKER_PACKS_RELATIVE_RELOCS
                          FAIL_REGEX "pack-relative-relocs ignored")
unset(CMAKE_REQUIRED_LINK_OPTIONS)
if(VX_LINKER_PACKS_RELATIVE_RELOCS)
    list(APPEND VX_PROGRAM_LINK_OPTIONS LINKER:-z,pack-relative-relocs)
endif()
if(VX_STATIC_DEPENDENCIES)
    list(APPEND VX_PROGRAM_LINK_OPTIONS -static-libstdc++ -static-libgcc)
endif()
