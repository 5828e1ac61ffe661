# Debian packages by `cpack`: the libraries, what another project needs to build with them, the program, the Python module,
# and the guides.

set(CPACK_GENERATOR DEB)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGE_NAME kestrune-markerextractor)
set(CPACK_PACKAGE_VENDOR "kestrune")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has its own
set(CPACK_PACKAGE_CONTACT "kestrune developers <maintainers@example.invalid>")

set(CPACK_COMPONENTS_ALL runtime development metrology metrology_development documentation)
if(KESTRUNE_BUILD_APPS)
    list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
if(KESTRUNE_BUILD_PYTHON)
    list(APPEND CPACK_COMPONENTS_ALL python)
endif()
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_COMPONENT_METROLOGY_DEPENDS runtime)
set(CPACK_COMPONENT_METROLOGY_DEVELOPMENT_DEPENDS metrology development)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)  # on the very version, as both come from one build
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(text "The library finds small flat circular markers in the images of a calibrated camera pair,
to a few hundredths of a pixel, and measures them without any code on the marker.")

# The number in the name is that of the soname: a later one with other symbols can stand beside it.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libkestrune-markerextractor${kestrune_soversion})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/triggers)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "finds circular markers in camera images - shared library\n${text}")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkestrune-markerextractor-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
math(EXPR next "${OpenCV_VERSION_MINOR} + 1")
string(JOIN ", " CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "libopencv-dev (>= ${OpenCV_VERSION_MAJOR}.${OpenCV_VERSION_MINOR})"
    "libopencv-dev (<< ${OpenCV_VERSION_MAJOR}.${next}~)" "libeigen3-dev (>= 3.3)")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "finds circular markers in camera images - development files\n${text}

This package has the headers, the CMake package and the pkg-config file.")

set(text_files "This second library reads and writes the settings and calibration files of such a measurement.")
set(CPACK_DEBIAN_METROLOGY_PACKAGE_NAME libkestrune-markermetrology${kestrune_soversion})
set(CPACK_DEBIAN_METROLOGY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_METROLOGY_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_METROLOGY_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/triggers)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/plugins/MarkerExtractor)  # it needs the first
set(CPACK_COMPONENT_METROLOGY_DESCRIPTION
    "finds circular markers in camera images - settings and calibration\n${text}\n\n${text_files}")

set(CPACK_DEBIAN_METROLOGY_DEVELOPMENT_PACKAGE_NAME libkestrune-markermetrology-dev)
set(CPACK_DEBIAN_METROLOGY_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_METROLOGY_DEVELOPMENT_DESCRIPTION
    "finds circular markers in camera images - settings and calibration, development files\n${text}\n\n${text_files}
This package has its headers, the CMake package and the pkg-config file.")

# Program and module load it themselves, when an image needs it: 4.6 is in libopencv-imgcodecs406, 4.10 in 410.
math(EXPR number "100 * ${OpenCV_VERSION_MAJOR} + ${OpenCV_VERSION_MINOR}")
set(codecs libopencv-imgcodecs${number})
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kestrune-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION graphics)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${codecs}")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "finds circular markers in camera images - program\n${text}

This package has the program kestrune-measure and settings to start from.")

# The module is compiled for one minor version of Python. It has both libraries in itself.
set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-kestrune)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
    "python3 (>= ${kestrune_python_version}~), python3 (<< ${kestrune_python_next}), python3-numpy, ${codecs}")
set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS "python3-distributed, python3-pandas")
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/cmake/python/postinst ${PROJECT_SOURCE_DIR}/cmake/python/prerm)
set(CPACK_COMPONENT_PYTHON_DESCRIPTION "finds circular markers in camera images - Python module\n${text}

This package has the Python module kestrune and kestrune-batch, which measures thousands of exposures.")

# The guides, with links that hold: README, docs and the examples lie as in the source tree.
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_NAME kestrune-doc)
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_SECTION doc)
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_RECOMMENDS kestrune-doc)
set(CPACK_DEBIAN_METROLOGY_DEVELOPMENT_PACKAGE_RECOMMENDS kestrune-doc)
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS kestrune-doc)
set(CPACK_DEBIAN_PYTHON_PACKAGE_RECOMMENDS kestrune-doc)
set(CPACK_COMPONENT_DOCUMENTATION_DESCRIPTION "finds circular markers in camera images - guides and examples\n${text}

This package has the guides to the library and the program, hosts to begin from and settings for them.")
set(pages ${CMAKE_INSTALL_DATADIR}/doc/kestrune-doc)
install(FILES README.md CHANGELOG.md CONTRIBUTING.md LICENSE DESTINATION ${pages} COMPONENT documentation)
install(DIRECTORY docs DESTINATION ${pages} COMPONENT documentation PATTERN "*.in" EXCLUDE)
install(DIRECTORY examples DESTINATION ${pages} COMPONENT documentation PATTERN "__pycache__" EXCLUDE)

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER ${component} name)
    install(FILES ${PROJECT_SOURCE_DIR}/LICENSE RENAME copyright COMPONENT ${component}
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${name}_PACKAGE_NAME})
endforeach()
include(CPack)
