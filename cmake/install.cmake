# What a program outside needs: the library and its headers, a pkg-config file, a CMake package with the
# target ovo::shkv, and the Python module. All of it can be moved after the install.
include(CMakePackageConfigHelpers)
set(SHKV_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/ovo_shkv)

set_target_properties(ovo_shkv PROPERTIES EXPORT_NAME shkv)
add_library(ovo::shkv ALIAS ovo_shkv)
install(TARGETS ovo_shkv EXPORT ovo_shkv LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES include/shkv.h include/shkv_format.h include/shkv.hpp DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT ovo_shkv FILE ovo_shkvTargets.cmake NAMESPACE ovo:: DESTINATION ${SHKV_CMAKE_DIR})
file(WRITE ${PROJECT_BINARY_DIR}/ovo_shkvConfig.cmake "include(\${CMAKE_CURRENT_LIST_DIR}/ovo_shkvTargets.cmake)\n")
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ovo_shkvConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ovo_shkvConfig.cmake ${PROJECT_BINARY_DIR}/ovo_shkvConfigVersion.cmake
  DESTINATION ${SHKV_CMAKE_DIR})

file(RELATIVE_PATH SHKV_PC_UP /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" SHKV_PC_UP ${SHKV_PC_UP})
configure_file(cmake/ovo_shkv.pc.in ovo_shkv.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ovo_shkv.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# python3/dist-packages is where Debian's interpreters look under /usr; elsewhere it is the directory of the
# version that the build has found. Without one there is no directory that a later one would look into.
set(SHKV_PYTHON_DIR "" CACHE STRING "Directory of the Python module, from the prefix on")
find_package(Python3 COMPONENTS Interpreter QUIET)
install(CODE "
  set(dir \"${SHKV_PYTHON_DIR}\")
  if(NOT dir AND CMAKE_INSTALL_PREFIX STREQUAL /usr)
    set(dir lib/python3/dist-packages)
  elseif(NOT dir AND \"${Python3_VERSION_MAJOR}\")
    set(dir lib/python${Python3_VERSION_MAJOR}.${Python3_VERSION_MINOR}/dist-packages)
  endif()
  if(dir)
    file(INSTALL \"${PROJECT_SOURCE_DIR}/python/shkv.py\" DESTINATION \"\${CMAKE_INSTALL_PREFIX}/\${dir}\")
  else()
    message(\"-- No Python here, so no Python module: install python3 and do this again\")
  endif()")
