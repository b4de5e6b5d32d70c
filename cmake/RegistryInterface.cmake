# The registry service's D-Bus interface. Its names are written down once, in
# the interface description: the object path is the node's name and the
# interface name doubles as the well-known bus name. From it the build makes
# the names header (platform/registry_names.h), the bus policy, and with
# vx_registry_glue() the proxy and adaptor code of dbus-c++'s generator.
find_program(DBUSXX_XML2CPP dbusxx-xml2cpp REQUIRED)

set(VX_REGISTRY_XML "${PROJECT_SOURCE_DIR}/data/dbus/com.tessalabs.Registry.xml")
set(VX_GENERATED_DIR "${PROJECT_BINARY_DIR}/generated")
file(READ "${VX_REGISTRY_XML}" xml)
string(REGEX MATCH "<node name=\"([^\"]+)\"" _ "${xml}")
set(VX_REGISTRY_OBJECT_PATH "${CMAKE_MATCH_1}")
string(REGEX MATCH "<interface name=\"([^\"]+)\"" _ "${xml}")
set(VX_REGISTRY_INTERFACE "${CMAKE_MATCH_1}")
set(VX_REGISTRY_BUS_NAME "${VX_REGISTRY_INTERFACE}")
if(NOT VX_REGISTRY_OBJECT_PATH OR NOT VX_REGISTRY_INTERFACE)
    message(FATAL_ERROR "${VX_REGISTRY_XML}: no node or interface name")
endif()
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${VX_REGISTRY_XML}")

configure_file("${PROJECT_SOURCE_DIR}/data/dbus/registry_names.h.in"
               "${VX_GENERATED_DIR}/platform/registry_names.h" @ONLY)
# The system bus policy, installed where the bus reads it; the tests run a
# private bus with this same file.
set(VX_REGISTRY_POLICY "${PROJECT_BINARY_DIR}/data/dbus/${VX_REGISTRY_BUS_NAME}.conf")
configure_file("${PROJECT_SOURCE_DIR}/data/dbus/registry.conf.in" "${VX_REGISTRY_POLICY}" @ONLY)
install(FILES "${VX_REGISTRY_POLICY}" DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/system.d COMPONENT runtime)

# Generates the proxy or adaptor ("proxy" or "adaptor") of the interface as
# the header output; call it from the directory of the target that compiles it.
function(vx_registry_glue kind output)
    get_filename_component(dir "${output}" DIRECTORY)
    add_custom_command(
        OUTPUT "${output}"
        COMMAND ${CMAKE_COMMAND} -E make_directory "${dir}"
        COMMAND "${DBUSXX_XML2CPP}" "${VX_REGISTRY_XML}" "--${kind}=${output}"
        DEPENDS "${VX_REGISTRY_XML}"
        COMMENT "Generating the registry's D-Bus ${kind}"
        VERBATIM)
endfunction()
