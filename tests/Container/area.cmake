# A real plugin, loaded with dlopen by the key tests: types registered on one side of a shared
# object boundary must be found from the other.
add_library(KelContainerTestPlugin MODULE ${CMAKE_CURRENT_LIST_DIR}/plugin/ContainerPlugin.cpp)
kel_set_warnings(KelContainerTestPlugin)
target_link_libraries(KelContainerTestPlugin PRIVATE KelFoundation::KelFoundation)
set_target_properties(KelContainerTestPlugin PROPERTIES
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
add_dependencies(${area_target} KelContainerTestPlugin)
target_compile_definitions(${area_target} PRIVATE
    KEL_CONTAINER_TEST_PLUGIN="$<TARGET_FILE:KelContainerTestPlugin>")
target_link_libraries(${area_target} PRIVATE ${CMAKE_DL_LIBS})
