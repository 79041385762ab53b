# Included after project() in the ARM cross builds (toolchain-arm.cmake): Qt's
# code generators from this machine, which Qt's package files then leave alone.
find_program(OPX_HOST_MOC moc PATHS /usr/lib/qt5/bin NO_DEFAULT_PATH REQUIRED)
find_program(OPX_HOST_UIC uic PATHS /usr/lib/qt5/bin NO_DEFAULT_PATH REQUIRED)
find_program(OPX_HOST_RCC rcc PATHS /usr/lib/qt5/bin NO_DEFAULT_PATH REQUIRED)
foreach(tool moc uic rcc)
    string(TOUPPER ${tool} upper)
    if(NOT TARGET Qt5::${tool})
        add_executable(Qt5::${tool} IMPORTED)
        set_target_properties(Qt5::${tool} PROPERTIES IMPORTED_LOCATION "${OPX_HOST_${upper}}")
    endif()
endforeach()
