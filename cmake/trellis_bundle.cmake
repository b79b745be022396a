# trellis_add_bundle: a schema becomes a shared library. Works in this project's build and, through
# find_package(trellis), in any other.
#
#   trellis_add_bundle(<target> SCHEMA a.trellis b.trellis ...
#                      [NAME <bundle>]        the name the schema gives itself; default: the target's
#                      [IMPORTS target ...]   bundles that the schema imports from
#                      [UNITS n]              source files the types are spread over, 1 to 1000; default 8
#                      [VERSION x.y.z]        of the library; its first number is the SOVERSION; default: the project's
#                      [EXPORT set]           export set of the installed target
#                      [NO_INSTALL])
#
# Makes lib<bundle>.so with the public headers <bundle>/<type>.h and, for all of them, <bundle>/<bundle>.h. Programs
# link the target and a runtime, such as loom::runtime. The schema is compiled while the project is built: the
# names of all sources are known beforehand, and what has not changed is not built again.
include_guard(GLOBAL)
include(GNUInstallDirs)

set(TRELLIS_BUNDLE_TEMPLATES "${CMAKE_CURRENT_LIST_DIR}")

# Sources and headers of a bundle below `out`, as trellisc writes them.
function(trellis_bundle_files sources headers out name units)
  set(all frame.cpp type_information.cpp registry.cpp counters.S function_records.S trace_store.S manifest.S
    type_description.S)
  math(EXPR last "${units} - 1")
  foreach(unit RANGE ${last})
    if(unit LESS 10)
      set(unit "0${unit}")
    endif()
    list(APPEND all "unit_${unit}.cpp")
  endforeach()
  list(TRANSFORM all PREPEND "${out}/src/")
  set(${sources} "${all}" PARENT_SCOPE)
  set(${headers} "${out}/include/${name}/${name}.h" "${out}/include/${name}/revision.h" PARENT_SCOPE)
endfunction()

# How a bundle is compiled and linked: nothing is exported by accident, calls among its own functions are bound when
# it is linked, imports when it is loaded.
function(trellis_bundle_options target)
  set_target_properties(${target} PROPERTIES
    CXX_STANDARD 20 CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON INSTALL_RPATH "$ORIGIN")
  target_compile_options(${target} PRIVATE
    $<$<COMPILE_LANGUAGE:CXX>:-fno-plt -fno-exceptions -fno-rtti -fno-strict-aliasing>)
  # GCC clears a few hundred bytes by `rep stos`, which takes longer to start than the library's memset to end.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
    target_compile_options(${target} PRIVATE
      $<$<COMPILE_LANGUAGE:CXX>:-mmemset-strategy=libcall:-1:noalign>)
  endif()
  target_link_options(${target} PRIVATE -Wl,-Bsymbolic-functions -Wl,-z,now)
endfunction()

function(trellis_install_bundle target name version export out)
  set(export_set "")
  if(export)
    set(export_set EXPORT ${export})
  endif()
  install(TARGETS ${target} ${export_set} LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}")
  install(DIRECTORY "${out}/include/${name}" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" FILES_MATCHING PATTERN "*.h")
  file(RELATIVE_PATH UP_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
  set(BUNDLE_NAME "${name}")
  set(BUNDLE_VERSION "${version}")
  install(FILES "$<TARGET_FILE_DIR:${target}>/${name}.json" DESTINATION "${CMAKE_INSTALL_DATADIR}/trellis")
  configure_file("${TRELLIS_BUNDLE_TEMPLATES}/bundle.pc.in" "${out}/${name}.pc" @ONLY)
  install(FILES "${out}/${name}.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
endfunction()

function(trellis_add_bundle target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "NO_INSTALL" "NAME;UNITS;VERSION;EXPORT" "SCHEMA;IMPORTS")
  if(arg_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "trellis_add_bundle(${target}): unknown arguments ${arg_UNPARSED_ARGUMENTS}")
  endif()
  if(NOT arg_SCHEMA)
    message(FATAL_ERROR "trellis_add_bundle(${target}): give the files of the schema behind SCHEMA")
  endif()
  get_property(languages GLOBAL PROPERTY ENABLED_LANGUAGES)
  if(NOT "ASM" IN_LIST languages)
    message(FATAL_ERROR "trellis_add_bundle(${target}): the project has no assembler; write enable_language(ASM)")
  endif()
  set(name "${target}")
  if(arg_NAME)
    set(name "${arg_NAME}")
  endif()
  set(units 8)
  if(arg_UNITS)
    set(units "${arg_UNITS}")
  endif()
  set(version "${PROJECT_VERSION}")
  if(arg_VERSION)
    set(version "${arg_VERSION}")
  elseif(NOT version)
    set(version 1.0.0)
  endif()
  string(REGEX MATCH "^[0-9]+" soversion "${version}")
  list(TRANSFORM arg_SCHEMA REPLACE "^([^/].*)$" "${CMAKE_CURRENT_SOURCE_DIR}/\\1")

  set(out "${CMAKE_CURRENT_BINARY_DIR}/${name}")
  trellis_bundle_files(sources headers "${out}" "${name}" ${units})
  add_custom_command(
    OUTPUT ${sources} ${headers}
    COMMAND trellis::trellisc generate --bundle ${name} --out "${out}" --units ${units} ${arg_SCHEMA}
    DEPENDS ${arg_SCHEMA} trellis::trellisc
    COMMENT "Compiling the schema of ${name}"
    VERBATIM)

  add_library(${target} SHARED ${sources} ${headers})
  trellis_bundle_options(${target})
  set_target_properties(${target} PROPERTIES OUTPUT_NAME "${name}" VERSION "${version}" SOVERSION "${soversion}")
  target_include_directories(${target}
    PUBLIC "$<BUILD_INTERFACE:${out}/include>" $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
    PRIVATE "${out}/src")
  target_link_libraries(${target} PUBLIC loom::platform ${arg_IMPORTS} PRIVATE trellis::families)
  # The model as JSON, beside the library: what tools explain bytes by.
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND trellis::trellisc json ${arg_SCHEMA} > "$<TARGET_FILE_DIR:${target}>/${name}.json"
    VERBATIM)
  if(NOT arg_NO_INSTALL)
    trellis_install_bundle(${target} "${name}" "${version}" "${arg_EXPORT}" "${out}")
  endif()
endfunction()
