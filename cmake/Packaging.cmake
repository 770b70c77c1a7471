# Packages of the installed tree: `cpack -G ZIP` in a Windows build gives
# nebralib-VERSION-win64.zip (every component); `cpack -G DEB` in a Linux build gives four
# packages, split as Debian splits a library: libnebralib0 (the shared library, named after its
# soname), libnebralib-dev (headers, CMake package, pkg-config file), nebra (the tool and its
# manual page) and python3-nebralib (the Python module, as Debian names Python 3 modules). A
# program that only runs against the library then pulls in neither headers, tool nor Python, and
# a second soname could be installed beside the first. All take their version from project().
set(NEBRALIB_MAINTAINER "nebralib developers <dev@nebralib.org>"
    CACHE STRING "Maintainer named in the packages")
set(CPACK_PACKAGE_NAME nebralib)
set(CPACK_PACKAGE_VENDOR nebralib)
set(CPACK_PACKAGE_CONTACT ${NEBRALIB_MAINTAINER})
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Keeps certificate stores in step with the certificates on a PKCS#11 token")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_RESOURCE_FILE_README ${PROJECT_SOURCE_DIR}/README.md)
set(CPACK_STRIP_FILES ON)

if(WIN32)
    set(CPACK_GENERATOR ZIP)
    set(CPACK_SYSTEM_NAME win64)
    set(CPACK_PACKAGE_FILE_NAME ${CPACK_PACKAGE_NAME}-${PROJECT_VERSION}-${CPACK_SYSTEM_NAME})
    install(FILES ${PROJECT_SOURCE_DIR}/LICENSE ${PROJECT_SOURCE_DIR}/README.md
            DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT runtime)
else()
    set(CPACK_GENERATOR DEB)
    set(CPACK_DEB_COMPONENT_INSTALL ON)
    set(CPACK_COMPONENTS_ALL runtime dev tool python)
    set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libnebralib0)
    set(CPACK_DEBIAN_DEV_PACKAGE_NAME libnebralib-dev)
    set(CPACK_DEBIAN_TOOL_PACKAGE_NAME nebra)
    set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-nebralib)
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
    set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
    set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
    set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
    # The module is Python source only; the library it loads is its dependency's.
    set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
    # Summary line, then the extended description (lines under 80 columns).
    set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
        "library keeping certificate stores in step with PKCS#11 tokens
The nebralib library reads the certificates of a PKCS#11 token, sorts them
into root, CA, has-a-private-key and other certificates, and writes them into
a per-user certificate store bound to a key container of a PKCS#11 module
registered with p11-kit. It also verifies Authenticode signatures and edits
the access control lists it keeps for files.")
    set(CPACK_COMPONENT_DEV_DESCRIPTION
        "library keeping certificate stores in step with PKCS#11 tokens - development
Headers, a CMake package and pkg-config files for programs that use the
nebralib library: its C++ classes (nebralib::nebralib, pkg-config nebralib) or
its C interface alone (nebralib::c, pkg-config nebra).")
    set(CPACK_COMPONENT_TOOL_DESCRIPTION
        "keeps certificate stores in step with the certificates on PKCS#11 tokens
The nebra tool syncs the certificates of a PKCS#11 token (a smart card, or a
software token) into the user's certificate stores, lists and removes them by
key provider or by token, watches for tokens as they come and go, and verifies
Authenticode signatures.")
    set(CPACK_COMPONENT_PYTHON_DESCRIPTION
        "library keeping certificate stores in step with PKCS#11 tokens - Python 3
The nebralib module gives Python 3 programs the nebralib library through its C
interface (ctypes): tokens, login, sync, the stores and key providers, and
file signatures and access, with failures raised as exceptions.")
    # Each package's own first line is its summary: CPack would put the project's summary in
    # front of every description, above each package's own.
    unset(CPACK_PACKAGE_DESCRIPTION_SUMMARY)
    # Depends: the runtime packages of the libraries the binaries link (dpkg-shlibdeps; the
    # tool's own library is found in the runtime package being built).
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
        ${CMAKE_BINARY_DIR}/_CPack_Packages/Linux/DEB/${CPACK_PACKAGE_NAME}-${PROJECT_VERSION}-Linux/runtime/usr/${CMAKE_INSTALL_LIBDIR})
    set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libnebralib0 (= ${PROJECT_VERSION})")
    set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "libnebralib0 (= ${PROJECT_VERSION})")
    set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3, libnebralib0 (= ${PROJECT_VERSION})")
    # The PKCS#11 modules a user syncs from are separate packages.
    set(CPACK_DEBIAN_TOOL_PACKAGE_SUGGESTS "softhsm2, opensc-pkcs11")
    # The shared library is registered through the ldconfig trigger rather than maintainer
    # scripts (which CPack would otherwise write).
    set(_nebra_deb ${PROJECT_SOURCE_DIR}/packaging/debian)
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
        ${_nebra_deb}/triggers ${_nebra_deb}/postinst ${_nebra_deb}/postrm)
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)
    # Each package carries the machine-readable copyright, the changelog and lintian's overrides.
    configure_file(${_nebra_deb}/copyright ${CMAKE_BINARY_DIR}/debian/copyright @ONLY)
    configure_file(${_nebra_deb}/changelog ${CMAKE_BINARY_DIR}/debian/changelog @ONLY)
    execute_process(COMMAND gzip -9nf ${CMAKE_BINARY_DIR}/debian/changelog)
    foreach(component runtime dev tool python)
        string(TOUPPER ${component} c)
        set(pkg ${CPACK_DEBIAN_${c}_PACKAGE_NAME})
        install(FILES ${CMAKE_BINARY_DIR}/debian/copyright ${CMAKE_BINARY_DIR}/debian/changelog.gz
                DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${pkg} COMPONENT ${component})
        if(EXISTS ${_nebra_deb}/${pkg}.lintian-overrides)
            install(FILES ${_nebra_deb}/${pkg}.lintian-overrides
                    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides
                    RENAME ${pkg} COMPONENT ${component})
        endif()
    endforeach()
endif()
include(CPack)
