# kestrune_shared_library(name short COMPONENTS runtime development PUBLIC libraries... PRIVATE libraries...): the shared
# library of an object library name_objects, with its CMake package, its pkg-config file and its headers.
include(CMakePackageConfigHelpers)

math(EXPR kestrune_opencv_next "${OpenCV_VERSION_MINOR} + 1")
set(kestrune_opencv_next ${OpenCV_VERSION_MAJOR}.${kestrune_opencv_next})

function(kestrune_shared_library name short)
    cmake_parse_arguments(PARSE_ARGV 2 arg "" "" "COMPONENTS;PUBLIC;PRIVATE")
    list(GET arg_COMPONENTS 0 runtime)
    list(GET arg_COMPONENTS 1 development)

    add_library(${name} SHARED $<TARGET_OBJECTS:${name}_objects>)
    add_library(kestrune::${short} ALIAS ${name})
    kestrune_target(${name})
    set_target_properties(${name} PROPERTIES
        VERSION ${PROJECT_VERSION}
        SOVERSION ${kestrune_soversion}
        EXPORT_NAME ${short}
        LINKER_LANGUAGE CXX)
    # Visibility leaves out what the compiler instantiates of the standard library; a linker of ELF files hides that as
    # well. The library calls its own operations directly. It stays loaded once it was, whatever plug-in is closed:
    # OpenMP's threads wait in their runtime for the next region, and would be left without code.
    if(UNIX AND NOT APPLE)
        set(map ${PROJECT_SOURCE_DIR}/cmake/exports.map)
        target_link_options(${name} PRIVATE
            -Wl,--version-script=${map} -Wl,-Bsymbolic-functions -Wl,-z,nodelete)
        set_target_properties(${name} PROPERTIES LINK_DEPENDS ${map})
    endif()
    target_compile_features(${name} INTERFACE cxx_std_17)
    target_include_directories(${name} PUBLIC
        $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    target_include_directories(${name} SYSTEM INTERFACE $<BUILD_INTERFACE:${OpenCV_INCLUDE_DIRS}>)
    target_link_libraries(${name} PUBLIC ${arg_PUBLIC} PRIVATE ${arg_PRIVATE})

    set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/${name})
    configure_package_config_file(
        ${PROJECT_SOURCE_DIR}/cmake/${name}Config.cmake.in ${name}Config.cmake
        INSTALL_DESTINATION ${package_dir}
        NO_SET_AND_CHECK_MACRO)
    write_basic_package_version_file(${name}ConfigVersion.cmake COMPATIBILITY SameMinorVersion)
    # The pkg-config file finds its prefix from its own place, so that an installed tree may be moved.
    cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_LIBDIR BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX} OUTPUT_VARIABLE full_libdir)
    cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY ${full_libdir}/pkgconfig OUTPUT_VARIABLE pc_to_prefix)
    configure_file(${PROJECT_SOURCE_DIR}/cmake/${name}.pc.in ${name}.pc @ONLY)

    install(TARGETS ${name} EXPORT ${name}Targets
        LIBRARY COMPONENT ${runtime} NAMELINK_COMPONENT ${development})
    install(EXPORT ${name}Targets
        NAMESPACE kestrune:: DESTINATION ${package_dir} COMPONENT ${development})
    install(DIRECTORY include/kestrune
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT ${development} FILES_MATCHING PATTERN "*.h")
    install(FILES
        ${CMAKE_CURRENT_BINARY_DIR}/${name}Config.cmake
        ${CMAKE_CURRENT_BINARY_DIR}/${name}ConfigVersion.cmake
        DESTINATION ${package_dir} COMPONENT ${development})
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT ${development})
endfunction()
