include(CMakeFindDependencyMacro)
find_dependency(fmt 9)
include("${CMAKE_CURRENT_LIST_DIR}/QuarnBastilTargets.cmake")
