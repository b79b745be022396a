# trellis_add_fused: a bundle and our runtime as one shared library with link-time optimisation, for hosts that want
# the calls between both inlined. A process loads it in place of the bundle and of libloom_runtime.so, never beside
# them. A host with a runtime of its own takes the plain bundle, which resolves every import by name.
#
#   trellis_add_fused(<target> <bundle target>)
include_guard(GLOBAL)
include(GNUInstallDirs)

# Objects of `from`, once more, with link-time optimisation. Exported functions may be inlined into others here.
function(trellis_fused_objects target from)
  get_target_property(sources ${from} SOURCES)
  add_library(${target} OBJECT ${sources})
  foreach(property INCLUDE_DIRECTORIES COMPILE_DEFINITIONS COMPILE_OPTIONS LINK_LIBRARIES CXX_STANDARD CXX_EXTENSIONS
      CXX_VISIBILITY_PRESET VISIBILITY_INLINES_HIDDEN)
    get_target_property(value ${from} ${property})
    if(value OR value STREQUAL "OFF")
      set_target_properties(${target} PROPERTIES ${property} "${value}")
    endif()
  endforeach()
  target_compile_definitions(${target} PRIVATE TRELLIS_FUSED)
  target_compile_options(${target} PRIVATE
    $<$<COMPILE_LANGUAGE:C,CXX>:-flto=auto -fno-semantic-interposition>)
endfunction()

function(trellis_add_fused target bundle)
  trellis_fused_objects(${target}_bundle ${bundle})
  trellis_fused_objects(${target}_runtime loom_runtime)
  get_target_property(imports ${bundle} INTERFACE_LINK_LIBRARIES)
  get_target_property(runtime_libraries loom_runtime LINK_LIBRARIES)
  get_target_property(include_dirs ${bundle} INTERFACE_INCLUDE_DIRECTORIES)
  get_target_property(runtime_include_dirs loom_runtime INTERFACE_INCLUDE_DIRECTORIES)
  add_library(${target} SHARED $<TARGET_OBJECTS:${target}_bundle> $<TARGET_OBJECTS:${target}_runtime>)
  set_target_properties(${target} PROPERTIES LINKER_LANGUAGE CXX VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR} INSTALL_RPATH "$ORIGIN")
  target_include_directories(${target} PUBLIC ${include_dirs} ${runtime_include_dirs})
  target_link_libraries(${target} PUBLIC ${imports} PRIVATE ${runtime_libraries})
  install(TARGETS ${target} LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}")
  target_link_options(${target} PRIVATE -flto=auto -O2 -fno-semantic-interposition -Wl,-Bsymbolic-functions -Wl,-z,now)
endfunction()
