# Two packages from one description, each as .deb and as .rpm: zel-quorin-updater, all that a gateway needs, and
# zel-quorin-mirror, whose tool brings in libgcab, libzstd and zlib. scripts/package makes them.
set(ZQU_PACKAGING "${CMAKE_CURRENT_SOURCE_DIR}")
set(scripts "${CMAKE_CURRENT_BINARY_DIR}/scripts")
set(maintainer_scripts deb/conffiles deb/postinst deb/prerm deb/postrm rpm/post rpm/preun rpm/postun)
foreach(script IN LISTS maintainer_scripts)
    configure_file("${script}.in" "${scripts}/${script}" @ONLY
        FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
endforeach()

set(CPACK_PACKAGE_NAME zel-quorin)
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_CONTACT "Zelgw definition updater maintainers <maintainers@zelgw.example>")
set(CPACK_PACKAGE_VENDOR "Zelgw definition updater maintainers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_GENERATOR DEB RPM)
set(CPACK_PACKAGE_RELOCATABLE OFF)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
# The configuration lies outside of the prefix: the files are to be staged below DESTDIR, never on this machine.
set(CPACK_SET_DESTDIR ON)
set(CPACK_PRE_BUILD_SCRIPTS "${PROJECT_SOURCE_DIR}/cmake/ZquStage.cmake")
set(CPACK_ZQU_PACKAGING "${ZQU_PACKAGING}")
set(CPACK_ZQU_STRIP "${CMAKE_STRIP}")

set(CPACK_COMPONENTS_ALL updater)
if(TARGET zqu-mirror)
    list(APPEND CPACK_COMPONENTS_ALL mirror)
endif()
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(updater_summary "keeps antivirus definition files current on a gateway")
set(updater_description
"Polls an HTTPS mirror for new releases of antivirus definition files, verifies
each release twice, and puts it into service by atomically re-pointing one
symbolic link. Runs as a confined service of a user of its own.
.
Installing the package neither enables nor starts the service: set its mirror
in the configuration first.")
set(mirror_summary "publishes antivirus definition files on a mirror")
set(mirror_description
"Writes releases of antivirus definition files into a directory that any web
server can serve, and checks a mirror in the way that a gateway would see it.
.
This is for the machine that is the mirror. A gateway needs the package
zel-quorin-updater; one that verifies signatures itself, or downloads deltas,
needs both.")

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SECTION non-free/net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS ca-certificates)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_UPDATER_PACKAGE_NAME zel-quorin-updater)
set(CPACK_DEBIAN_UPDATER_DESCRIPTION "${updater_summary}\n${updater_description}")
set(CPACK_DEBIAN_UPDATER_PACKAGE_DEPENDS systemd)
set(CPACK_DEBIAN_UPDATER_PACKAGE_CONTROL_EXTRA
    "${scripts}/deb/conffiles" "${scripts}/deb/postinst" "${scripts}/deb/prerm" "${scripts}/deb/postrm")
set(CPACK_DEBIAN_MIRROR_PACKAGE_NAME zel-quorin-mirror)
set(CPACK_DEBIAN_MIRROR_DESCRIPTION "${mirror_summary}\n${mirror_description}")

set(CPACK_RPM_COMPONENT_INSTALL ON)
set(CPACK_RPM_FILE_NAME RPM-DEFAULT)
set(CPACK_RPM_COMPRESSION_TYPE xz)
set(CPACK_RPM_PACKAGE_LICENSE "All rights reserved")
set(CPACK_RPM_PACKAGE_GROUP "System Environment/Daemons")
set(CPACK_RPM_CHANGELOG_FILE "${ZQU_PACKAGING}/rpm/changelog")
# Whose machine built it, and when, is not to show. What follows is part of the preamble of both packages.
string(CONCAT CPACK_RPM_SPEC_MORE_DEFINE
    "%global _buildhost localhost\n"
    "%global use_source_date_epoch_as_buildtime 1\n"
    "%global clamp_mtime_to_source_date_epoch 1\n"
    "%global source_date_epoch_from_changelog 0\n"
    "%global _build_id_links none\n"
    "Packager: ${CPACK_PACKAGE_CONTACT}\n"
    "Recommends: ca-certificates")
set(CPACK_RPM_UPDATER_PACKAGE_NAME zel-quorin-updater)
set(CPACK_RPM_UPDATER_PACKAGE_SUMMARY "Keeps antivirus definition files current on a gateway")
string(REPLACE "\n.\n" "\n\n" CPACK_RPM_UPDATER_PACKAGE_DESCRIPTION "${updater_description}")
set(CPACK_RPM_UPDATER_PACKAGE_REQUIRES systemd)
set(CPACK_RPM_UPDATER_PACKAGE_REQUIRES_POST systemd)
set(CPACK_RPM_UPDATER_PACKAGE_REQUIRES_PREUN systemd)
set(CPACK_RPM_UPDATER_PACKAGE_REQUIRES_POSTUN systemd)
set(CPACK_RPM_UPDATER_POST_INSTALL_SCRIPT_FILE "${scripts}/rpm/post")
set(CPACK_RPM_UPDATER_PRE_UNINSTALL_SCRIPT_FILE "${scripts}/rpm/preun")
set(CPACK_RPM_UPDATER_POST_UNINSTALL_SCRIPT_FILE "${scripts}/rpm/postun")
set(CPACK_RPM_UPDATER_USER_FILELIST "%config(noreplace) ${ZQU_CONFIG_FILE}")
set(CPACK_RPM_MIRROR_PACKAGE_NAME zel-quorin-mirror)
set(CPACK_RPM_MIRROR_PACKAGE_SUMMARY "Publishes antivirus definition files on a mirror")
string(REPLACE "\n.\n" "\n\n" CPACK_RPM_MIRROR_PACKAGE_DESCRIPTION "${mirror_description}")
# Folders that belong to the system.
set(CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION
    /usr/lib /usr/lib/systemd /usr/lib/systemd/system /usr/lib/sysusers.d /usr/lib/tmpfiles.d /usr/libexec
    /usr/local /usr/sbin /usr/share/bash-completion /usr/share/bash-completion/completions
    /usr/share/man /usr/share/man/man1 /usr/share/man/man5 /usr/share/man/man8)
include(CPack)
