# Packages of the installed tree: `cpack -G ZIP` in a Windows build gives
# nebralib-VERSION-win64.zip, `cpack -G DEB` in a Linux build gives nebralib_VERSION_ARCH.deb.
# Both take their version from project().
set(CPACK_PACKAGE_NAME nebralib)
set(CPACK_PACKAGE_VENDOR nebralib)
set(CPACK_PACKAGE_CONTACT "nebralib developers <nebralib@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Keeps certificate stores in step with the certificates on a PKCS#11 token")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_RESOURCE_FILE_README ${PROJECT_SOURCE_DIR}/README.md)
set(CPACK_STRIP_FILES ON)

if(WIN32)
    set(CPACK_GENERATOR ZIP)
    set(CPACK_SYSTEM_NAME win64)
    set(CPACK_PACKAGE_FILE_NAME ${CPACK_PACKAGE_NAME}-${PROJECT_VERSION}-${CPACK_SYSTEM_NAME})
else()
    set(CPACK_GENERATOR DEB)
    set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
    set(CPACK_DEBIAN_PACKAGE_SECTION utils)
    # The extended description below the summary line.
    set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
        "The nebra tool and the nebralib library read the certificates of a PKCS#11 token, sort
them into root, CA, has-a-private-key and other certificates, and write them into a per-user
certificate store bound to a key container of a PKCS#11 module registered with p11-kit.
Headers, a CMake package and a pkg-config file are included for programs that use the library.")
    # Depends: the runtime packages of the libraries the binaries link (dpkg-shlibdeps).
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
    # The PKCS#11 modules a user syncs from are separate packages.
    set(CPACK_DEBIAN_PACKAGE_SUGGESTS "softhsm2, opensc-pkcs11")
endif()
include(CPack)
