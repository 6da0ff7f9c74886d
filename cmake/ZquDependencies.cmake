# zqu_require(<package> <debian package>): finds a library that the product needs, or stops with a message
# that names what to install.
macro(zqu_require package debian_package)
    find_package(${package} QUIET)
    if(NOT ${package}_FOUND)
        message(FATAL_ERROR
            "${package} with its development files was not found. On Debian: apt-get install ${debian_package}")
    endif()
endmacro()

# zqu_wanted(<result> <option> <what> <debian packages> <condition...>): decides whether an optional part is built.
# AUTO builds it when the condition holds; ON stops with a message when it does not.
function(zqu_wanted result option what debian_packages)
    set(${result} FALSE PARENT_SCOPE)
    if("${${option}}" STREQUAL "OFF")
        return()
    endif()
    if(${ARGN})
        set(${result} TRUE PARENT_SCOPE)
    elseif("${${option}}" STREQUAL "AUTO")
        message(STATUS "Not building ${what}: that needs, on Debian, ${debian_packages}")
    else()
        message(FATAL_ERROR "${option} is ${${option}}, but ${what} cannot be built. "
            "On Debian: apt-get install ${debian_packages}")
    endif()
endfunction()
