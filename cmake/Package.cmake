# The Debian packages: cpack --preset deb. Who has no cluster needs no package of Ceph: its library is a package of its
# own, fsetrestore-cephfs. Programs and library are installed where the restore looks for them.
# cmake/ArrangePackage.cmake moves the files that a Debian system expects in other places.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME fsetrestore)
set(CPACK_PACKAGE_VENDOR fsetrestore)
set(FSETRESTORE_MAINTAINER "fsetrestore authors <authors@fsetrestore.invalid>" CACHE STRING
  "name and address of whoever builds the package")
set(CPACK_PACKAGE_CONTACT ${FSETRESTORE_MAINTAINER})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "put btrfs subvolumes and CephFS directories back to snapshots")
set(CPACK_PACKAGE_DESCRIPTION
"fset lists the snapshots of a subvolume, shows what differs, puts it back to
one of them and undoes that again. Mounts, open files and inodes stay valid,
and the work grows with the difference alone. The layouts of the usual
snapshot tools work as they are.")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENTS_ALL Unspecified)
set(CPACK_DEBIAN_UNSPECIFIED_PACKAGE_NAME fsetrestore)
set(CPACK_DEBIAN_UNSPECIFIED_DESCRIPTION "${CPACK_PACKAGE_DESCRIPTION}")
if(TARGET kest_cephfs)
  list(APPEND CPACK_COMPONENTS_ALL cephfs)
  set(CPACK_DEBIAN_CEPHFS_PACKAGE_NAME fsetrestore-cephfs)
  set(CPACK_DEBIAN_CEPHFS_PACKAGE_DEPENDS "fsetrestore (= ${PROJECT_VERSION}-1)")
  set(CPACK_DEBIAN_CEPHFS_PACKAGE_RECOMMENDS "parallel, openssh-client")  # by which nodes share a restore
  set(CPACK_DEBIAN_CEPHFS_DESCRIPTION
"With this package the programs of fsetrestore work on directories of a CephFS
and the snapshots in their .snap folders.")
endif()
set(CPACK_PACKAGING_INSTALL_PREFIX /usr/qtx/kest)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Dependencies come from the libraries that the programs are linked with. Every system has date(1) and a shell.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/lib)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_SOURCE_DIR}/cmake/ArrangePackage.cmake)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_BINARY_DIR}/PackageSource.cmake)
file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/PackageSource.cmake
  CONTENT "set(FSETRESTORE_SOURCE \"${CMAKE_SOURCE_DIR}\")\n")
include(CPack)
