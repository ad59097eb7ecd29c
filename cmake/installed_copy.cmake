# Links INSTALLED, which is made from $<TARGET_OBJECTS:TARGET>, with the search path of the installed tree. If TARGET itself
# were installed, CMake would append ':' to the search path of the build tree, as space for the other one. The dynamic
# loader reads the empty element after it as the current directory.
function(crrecord_installed_copy installed target rpath)
    get_target_property(name ${target} OUTPUT_NAME)
    get_target_property(libraries ${target} LINK_LIBRARIES)
    get_target_property(options ${target} LINK_OPTIONS)
    target_link_libraries(${installed} PRIVATE ${libraries})
    if(options)
        target_link_options(${installed} PRIVATE ${options})
    endif()
    set_target_properties(${installed} PROPERTIES
        OUTPUT_NAME ${name}
        LINKER_LANGUAGE CXX
        RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/installed
        LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/installed
        INSTALL_RPATH "${rpath}"
        BUILD_WITH_INSTALL_RPATH ON)
endfunction()
