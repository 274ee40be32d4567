# Message catalogues of the library's texts: i18n/<language>.po compiled by msgfmt into
# <library dir>/locale/<language>/LC_MESSAGES/KelFoundation.mo in the build tree, and installed
# into the usual locale directory. The library looks for its catalogues relative to its own
# file, so it needs to know where the locale directory lies relative to the library directory.
find_program(KEL_MSGFMT msgfmt REQUIRED)

# The directory the build puts the library in (custom-command outputs cannot name it by a
# target-dependent generator expression).
get_target_property(KEL_LIBRARY_BUILD_DIR KelFoundation LIBRARY_OUTPUT_DIRECTORY)
if(NOT KEL_LIBRARY_BUILD_DIR)
    set(KEL_LIBRARY_BUILD_DIR ${PROJECT_BINARY_DIR})
endif()

file(GLOB KEL_PO_FILES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/i18n/*.po)
set(KEL_CATALOGUES)
foreach(po_file IN LISTS KEL_PO_FILES)
    get_filename_component(language ${po_file} NAME_WE)
    set(mo_dir ${KEL_LIBRARY_BUILD_DIR}/locale/${language}/LC_MESSAGES)
    set(mo_file ${mo_dir}/KelFoundation.mo)
    add_custom_command(
        OUTPUT ${mo_file}
        COMMAND ${CMAKE_COMMAND} -E make_directory ${mo_dir}
        COMMAND ${KEL_MSGFMT} --check -o ${mo_file} ${po_file}
        DEPENDS ${po_file}
        COMMENT "Compiling the ${language} message catalogue"
        VERBATIM)
    list(APPEND KEL_CATALOGUES ${mo_file})
    install(FILES ${mo_file}
        DESTINATION ${CMAKE_INSTALL_LOCALEDIR}/${language}/LC_MESSAGES)
endforeach()
add_custom_target(KelFoundationCatalogues ALL DEPENDS ${KEL_CATALOGUES})
add_dependencies(KelFoundation KelFoundationCatalogues)

if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_LOCALEDIR}")
    file(RELATIVE_PATH KEL_INSTALLED_LOCALE_DIR
        ${CMAKE_INSTALL_FULL_LIBDIR} ${CMAKE_INSTALL_FULL_LOCALEDIR})
else()
    # Both relative to the prefix: the relation holds for any prefix chosen at install time.
    file(RELATIVE_PATH KEL_INSTALLED_LOCALE_DIR
        /prefix/${CMAKE_INSTALL_LIBDIR} /prefix/${CMAKE_INSTALL_LOCALEDIR})
endif()
target_compile_definitions(KelFoundation PRIVATE
    KEL_INSTALLED_LOCALE_DIR="${KEL_INSTALLED_LOCALE_DIR}")
