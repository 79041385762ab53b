# Included after project() in the ARM cross builds (toolchain-arm.cmake): Qt's
# code generators from this machine, which Qt's package files then leave alone.
# The compiler checks' own little projects need none.
if(PROJECT_NAME STREQUAL "CMAKE_TRY_COMPILE")
    return()
endif()
find_program(OPX_HOST_MOC moc PATHS /usr/lib/qt5/bin NO_DEFAULT_PATH REQUIRED)
find_program(OPX_HOST_UIC uic PATHS /usr/lib/qt5/bin NO_DEFAULT_PATH REQUIRED)
find_program(OPX_HOST_RCC rcc PATHS /usr/lib/qt5/bin NO_DEFAULT_PATH REQUIRED)
# Generated code must come from the target's Qt release.
execute_process(COMMAND "${OPX_HOST_MOC}" -v OUTPUT_VARIABLE host_moc OUTPUT_STRIP_TRAILING_WHITESPACE)
file(STRINGS "${Qt5_DIR}/../Qt5Core/Qt5CoreConfigVersion.cmake" target_qt REGEX "^set\\(PACKAGE_VERSION ")
string(REGEX MATCH "[0-9]+\\.[0-9]+\\.[0-9]+" host_qt "${host_moc}")
string(REGEX MATCH "[0-9]+\\.[0-9]+\\.[0-9]+" target_qt "${target_qt}")
if(NOT host_qt OR NOT host_qt VERSION_EQUAL target_qt)
    message(FATAL_ERROR "This machine's Qt tools are ${host_qt}, the sysroot's Qt is ${target_qt}")
endif()
message(STATUS "Qt ${target_qt} of the sysroot, with this machine's moc, uic and rcc")

foreach(tool moc uic rcc)
    string(TOUPPER ${tool} upper)
    if(NOT TARGET Qt5::${tool})
        add_executable(Qt5::${tool} IMPORTED)
        set_target_properties(Qt5::${tool} PROPERTIES IMPORTED_LOCATION "${OPX_HOST_${upper}}")
    endif()
endforeach()
