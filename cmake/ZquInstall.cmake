# zqu_install_configuration(<file> <absolute path>): installs a file that the administrator changes; an existing one
# stays.
function(zqu_install_configuration file path)
    cmake_path(ABSOLUTE_PATH file NORMALIZE)
    cmake_path(GET path PARENT_PATH directory)
    install(CODE "
        if(EXISTS \"\$ENV{DESTDIR}${path}\")
            message(STATUS \"Keeping: \$ENV{DESTDIR}${path}\")
        else()
            file(INSTALL DESTINATION \"${directory}\" TYPE FILE FILES \"${file}\")
        endif()")
endfunction()

# zqu_install_filled(<template> <directory below the prefix> <permissions>...): fills in a unit or a script and installs
# it. It is filled in again while it is installed, because "cmake --install --prefix" may name another prefix.
function(zqu_install_filled template directory)
    cmake_path(ABSOLUTE_PATH template NORMALIZE)
    cmake_path(GET template STEM LAST_ONLY name)
    configure_file("${template}" "${name}" @ONLY)
    install(CODE "
        set(installed \"${CMAKE_CURRENT_BINARY_DIR}/installed\${CMAKE_INSTALL_PREFIX}/${name}\")
        set(ZQU_DEF_ROOT \"${ZQU_DEF_ROOT}\")
        set(ZQU_CONFIG_FILE \"${ZQU_CONFIG_FILE}\")
        foreach(kind BINDIR SBINDIR LIBEXECDIR)
            set(CMAKE_INSTALL_BINDIR \"${CMAKE_INSTALL_BINDIR}\")
            set(CMAKE_INSTALL_SBINDIR \"${CMAKE_INSTALL_SBINDIR}\")
            set(CMAKE_INSTALL_LIBEXECDIR \"${CMAKE_INSTALL_LIBEXECDIR}\")
            cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_\${kind} BASE_DIRECTORY \"\${CMAKE_INSTALL_PREFIX}\"
                OUTPUT_VARIABLE CMAKE_INSTALL_FULL_\${kind})
        endforeach()
        configure_file(\"${template}\" \"\${installed}\" @ONLY)
        file(INSTALL DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${directory}\" TYPE FILE FILES \"\${installed}\"
            PERMISSIONS ${ARGN})")
endfunction()

# zqu_install_manual(<component> <page>...): installs pages of the manual, compressed and with the version; their
# sections are the last part of their names.
function(zqu_install_manual component)
    set(compressed "")
    foreach(page IN LISTS ARGN)
        cmake_path(ABSOLUTE_PATH page NORMALIZE)
        cmake_path(GET page FILENAME name)
        cmake_path(GET page EXTENSION LAST_ONLY section)
        string(SUBSTRING "${section}" 1 -1 section)
        set(output "${CMAKE_CURRENT_BINARY_DIR}/${name}.gz")
        # Without the name and the time of the page: the same bytes in every build.
        add_custom_command(OUTPUT "${output}"
            COMMAND sed "s/^[.]Os$/.Os zel_quorin_updater ${PROJECT_VERSION}/" "${page}" | gzip -9 --no-name > "${output}"
            DEPENDS "${page}" "${PROJECT_SOURCE_DIR}/debian/changelog"
            VERBATIM)
        list(APPEND compressed "${output}")
        install(FILES "${output}" DESTINATION "${CMAKE_INSTALL_MANDIR}/man${section}" COMPONENT "${component}")
    endforeach()
    add_custom_target(manual_of_${component} ALL DEPENDS ${compressed})
endfunction()
