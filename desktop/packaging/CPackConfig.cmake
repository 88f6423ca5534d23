# A Debian package of both programs (scripts/package): corvane and
# corvane-desktop in /usr/bin, the sample org and the CLI stand-in that demo
# mode starts in /usr/lib/corvane, and the launcher entry with its icon.
if(NOT TARGET corvane OR NOT TARGET corvane-desktop)
  return()
endif()

install(TARGETS corvane RUNTIME DESTINATION bin)
if(TARGET corvane-orgsim AND TARGET corvane_sf_standin_exe)
  install(TARGETS corvane-orgsim corvane_sf_standin_exe RUNTIME DESTINATION lib/corvane)
endif()

set(CPACK_GENERATOR "DEB")
set(CPACK_PACKAGE_NAME "corvane")
set(CPACK_PACKAGE_VENDOR "Corvane")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Backups, duplicates, imports and SOQL for Salesforce orgs")
set(CPACK_PACKAGE_INSTALL_DIRECTORY "corvane")
set(CPACK_PACKAGING_INSTALL_PREFIX "/usr")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Corvane <maintainers@corvane.invalid>")
set(CPACK_DEBIAN_PACKAGE_SECTION "utils")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# The shared libraries the programs link, as Debian names them.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "fonts-dejavu-core")
include(CPack)
