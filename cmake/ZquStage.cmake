# Run by cpack between staging the files of the packages and packing them: strips the programs, adds what only a .deb
# has, and sets all times to that of the commit, so that the same sources give the same packages.
cmake_policy(VERSION 3.25)

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    set(root "${CPACK_TEMPORARY_DIRECTORY}/${component}/usr")
    file(GLOB programs "${root}/bin/*" "${root}/sbin/*")
    execute_process(
        COMMAND "${CPACK_ZQU_STRIP}" --remove-section=.comment --remove-section=.note ${programs}
        COMMAND_ERROR_IS_FATAL ANY)
    if(CPACK_GENERATOR STREQUAL "DEB")
        set(package "zel-quorin-${component}")
        execute_process(
            COMMAND gzip -9 --no-name --stdout "${CPACK_ZQU_PACKAGING}/../debian/changelog"
            OUTPUT_FILE "${root}/share/doc/${package}/changelog.gz"
            COMMAND_ERROR_IS_FATAL ANY)
        set(overrides "${CPACK_ZQU_PACKAGING}/deb/${package}.lintian-overrides")
        if(EXISTS "${overrides}")
            file(MAKE_DIRECTORY "${root}/share/lintian/overrides")
            file(COPY_FILE "${overrides}" "${root}/share/lintian/overrides/${package}")
        endif()
    endif()
endforeach()

if(NOT "$ENV{SOURCE_DATE_EPOCH}" STREQUAL "")
    execute_process(
        COMMAND find "${CPACK_TEMPORARY_DIRECTORY}" -exec
            touch --no-dereference "--date=@$ENV{SOURCE_DATE_EPOCH}" "{}" +
        COMMAND_ERROR_IS_FATAL ANY)
endif()
