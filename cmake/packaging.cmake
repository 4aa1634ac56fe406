# Debian packages by CPack (cpack -G DEB in a build configured with CMAKE_INSTALL_PREFIX=/usr):
#   libtevix1       the shared library and the udev rules
#   libtevix-dev    headers, the CMake package, pkg-config file and the unversioned link
#   tevix-tools     the tevix command-line tool and the tevix-vcam virtual camera
#   python3-tevix   the Python package, when it is built
# scripts/packages.sh builds them and checks them with lintian.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tevix)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "tevix developers <packages@tevix.example.org>")
set(CPACK_PACKAGE_VENDOR "tevix")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
if(TARGET tevix_python)
  list(APPEND CPACK_COMPONENTS_ALL python)
endif()
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The tools and the Python module link the library of this very build.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src)
set(deb_version "${PROJECT_VERSION}-1")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libtevix1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# Descriptions: the first line is the synopsis; CPack indents the rest.
set(about "The tevix library lists USB time-of-flight cameras, captures their raw\nframes and turns them into distance images, infrared images and point\nclouds, corrected by per-camera calibration and cleaned by filters;\ncaptures record to ONI files and replay as if a camera were attached.\n\n")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "SDK for USB time-of-flight depth cameras - shared library\n${about}This package holds the shared library and the udev rules that give the\nlogged-in user and the plugdev group access to the cameras.")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtevix-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libtevix1 (= ${deb_version})")
set(CPACK_COMPONENT_DEV_DESCRIPTION
    "SDK for USB time-of-flight depth cameras - development files\n${about}This package holds the headers of the C interface, its CMake package\n(find_package(tevix)) and its pkg-config file.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tevix-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libtevix1 (= ${deb_version})")
# The viewer's 3-D view loads the distribution's three.js; without it the page goes without.
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "libjs-three")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "SDK for USB time-of-flight depth cameras - command-line tools\n${about}This package holds the tevix tool, which lists, configures and\ncaptures from cameras, serves a live viewer to a browser, inspects,\nrepairs and exports recordings, and tevix-vcam, which runs a program\nagainst virtual cameras.")
set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-tevix)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
    "libtevix1 (= ${deb_version}), python3 (>= 3.11), python3 (<< 3.12), python3-numpy")
set(CPACK_COMPONENT_PYTHON_DESCRIPTION
    "SDK for USB time-of-flight depth cameras - Python 3 package\n${about}This package holds the Python 3 package tevix: cameras, recordings and\nframes as numpy arrays.")

# Debian's per-package documents: copyright and a compressed changelog.
set(doc_dir ${PROJECT_BINARY_DIR}/packaging)
file(MAKE_DIRECTORY ${doc_dir})
string(TIMESTAMP deb_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(WRITE ${doc_dir}/changelog.Debian
     "tevix (${deb_version}) unstable; urgency=medium\n\n  * Release ${PROJECT_VERSION}.\n\n"
     " -- ${CPACK_PACKAGE_CONTACT}  ${deb_date}\n")
execute_process(COMMAND gzip -9nf ${doc_dir}/changelog.Debian)
foreach(comp runtime dev tools python)
  string(TOUPPER ${comp} up)
  set(pkg ${CPACK_DEBIAN_${up}_PACKAGE_NAME})
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${doc_dir}/changelog.Debian.gz
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${pkg} COMPONENT ${comp})
endforeach()

# The runtime package's control files: the symbols of the library (made from the built library),
# its shlibs line and the ldconfig trigger.
file(WRITE ${doc_dir}/triggers "activate-noawait ldconfig\n")
file(WRITE ${doc_dir}/shlibs "libtevix ${PROJECT_VERSION_MAJOR} libtevix1 (>= ${PROJECT_VERSION})\n")
add_custom_command(OUTPUT ${doc_dir}/symbols
  COMMAND ${CMAKE_COMMAND} -DLIB=$<TARGET_FILE:tevix> -DOUT=${doc_dir}/symbols
          -DVERSION=${PROJECT_VERSION} -DSONAME=$<TARGET_SONAME_FILE_NAME:tevix>
          -P ${PROJECT_SOURCE_DIR}/cmake/deb_symbols.cmake
  DEPENDS tevix ${PROJECT_SOURCE_DIR}/cmake/deb_symbols.cmake VERBATIM)
add_custom_target(tevix_deb_symbols ALL DEPENDS ${doc_dir}/symbols)
# The trigger runs ldconfig; empty maintainer scripts keep CPack from adding calls of its own.
file(WRITE ${doc_dir}/postinst "#!/bin/sh\nset -e\n")
file(WRITE ${doc_dir}/postrm "#!/bin/sh\nset -e\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${doc_dir}/triggers ${doc_dir}/shlibs ${doc_dir}/symbols ${doc_dir}/postinst ${doc_dir}/postrm)

include(CPack)
