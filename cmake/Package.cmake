# What is installed besides modules and programs, and the Debian packages, one for each install component. Build the
# packages with scripts/release; docs/packages.md describes them.

include(CMakePackageConfigHelpers)

# ---- The SDK: headers, a CMake package and a pkg-config file ----

install(DIRECTORY include/zumod DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT sdk)

set(sdk_cmake_dir ${CMAKE_INSTALL_DATAROOTDIR}/cmake/zu-client-camera)
set(sdk_dir ${CMAKE_BINARY_DIR}/sdk)
configure_package_config_file(
  cmake/zu-client-camera-config.cmake.in ${sdk_dir}/zu-client-camera-config.cmake
  INSTALL_DESTINATION ${sdk_cmake_dir}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR ZU_INSTALL_MODULE_DIR)
write_basic_package_version_file(${sdk_dir}/zu-client-camera-config-version.cmake COMPATIBILITY SameMajorVersion
                                 ARCH_INDEPENDENT)
install(FILES ${sdk_dir}/zu-client-camera-config.cmake ${sdk_dir}/zu-client-camera-config-version.cmake
        DESTINATION ${sdk_cmake_dir} COMPONENT sdk)

configure_file(cmake/zu-client-camera.pc.in ${sdk_dir}/zu-client-camera.pc @ONLY)
install(FILES ${sdk_dir}/zu-client-camera.pc DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/pkgconfig COMPONENT sdk)

install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/zu-client-camera-dev COMPONENT sdk
        FILES_MATCHING PATTERN *.md PATTERN conformance-1.txt PATTERN measured EXCLUDE PATTERN pictures EXCLUDE
        PATTERN performance.md EXCLUDE)
set(examples_dir ${CMAKE_INSTALL_DATAROOTDIR}/doc/zu-client-camera-dev/examples)
install(FILES examples/CMakeLists.txt examples/codec.cpp examples/exports.map examples/host.c examples/host.cpp examples/peer.py
        DESTINATION ${examples_dir} COMPONENT sdk)
install(FILES examples/wireshark/zu-camera.lua DESTINATION ${examples_dir}/wireshark COMPONENT sdk)
install(PROGRAMS examples/wireshark/capture-channel DESTINATION ${examples_dir}/wireshark COMPONENT sdk)

# ---- Packages ----

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zu-client-camera)
set(CPACK_PACKAGE_CONTACT "zu-client-camera maintainers <maintainers@users.noreply.c-seed-988371a0.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Lends this computer's cameras to other machines")
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION video)

# The date of the version as a change log of Debian has it.
execute_process(COMMAND date -Ru -d ${ZU_DATE} OUTPUT_VARIABLE ZU_DATE_RFC OUTPUT_STRIP_TRAILING_WHITESPACE
                COMMAND_ERROR_IS_FATAL ANY)

# zu_package(COMPONENT NAME SUMMARY text DESCRIPTION text [DEPENDS text] [RECOMMENDS text] [SECTION name] [ALL]): the
# Debian package of an install component. ALL: the same for every processor.
macro(zu_package component ZU_PACKAGE)
  cmake_parse_arguments(arg "ALL" "SUMMARY;DESCRIPTION;DEPENDS;RECOMMENDS;SECTION" "" ${ARGN})
  # A macro's parameters are no variables, but configure_file needs one.
  set(ZU_PACKAGE ${ZU_PACKAGE})
  set(doc ${CMAKE_INSTALL_DATAROOTDIR}/doc/${ZU_PACKAGE})
  install(FILES cmake/debian/copyright DESTINATION ${doc} COMPONENT ${component})
  zu_compressed(${ZU_CHANGES} ${doc} ${component} changelog)
  configure_file(cmake/debian/changelog.in ${sdk_dir}/${component}/changelog.Debian @ONLY)
  zu_compressed(${sdk_dir}/${component}/changelog.Debian ${doc} ${component})

  list(APPEND CPACK_COMPONENTS_ALL ${component})
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${ZU_PACKAGE})
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${arg_SUMMARY}\n${arg_DESCRIPTION}")
  set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${arg_DEPENDS}")
  set(CPACK_DEBIAN_${upper}_PACKAGE_RECOMMENDS "${arg_RECOMMENDS}")
  if(arg_SECTION)
    set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${arg_SECTION})
  endif()
  if(arg_ALL)
    set(CPACK_DEBIAN_${upper}_PACKAGE_ARCHITECTURE all)
    set(CPACK_DEBIAN_${upper}_PACKAGE_SHLIBDEPS OFF)
  endif()
endmacro()

zu_package(
  modules zu-client-camera
  SUMMARY "module that lends this computer's cameras to a remote peer"
  DESCRIPTION "A host application loads the module and hands it a byte stream. Over that
stream a peer lists the cameras, opens one and receives encoded video. This
package has the module and the reference codec, H.264 by libavcodec.")
zu_package(
  programs zu-camera-tools
  RECOMMENDS zu-vcam
  DEPENDS "zu-client-camera (= ${ZU_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})"
  SUMMARY "host and peer that lend and use cameras over a socket or ssh"
  DESCRIPTION "zu-camera-host lends the cameras of a machine to several peers at once.
zu-camera-peer lists them, takes pictures, records, measures, and offers them
to programs that find cameras by PipeWire. zu-module-validate checks modules.")
# The peer loads the library of PipeWire only for its command camera.
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_SUGGESTS pipewire)
zu_package(
  sdk zu-client-camera-dev ALL
  SECTION libdevel
  SUMMARY "headers for hosts and codecs of zu-client-camera"
  DESCRIPTION "The interfaces that a host application, a codec module or a peer implements,
as headers without a library, with a CMake package, a pkg-config file and
examples.")
zu_package(
  vcam zu-vcam
  SUMMARY "virtual cameras for any program, without a kernel module"
  DESCRIPTION "Runs a command that sees cameras at /dev/videoN, with test pictures that carry
a counter and a time, or with a film. Thirty kinds of fault can be injected.")

include(CPack)
