# Installs the build tree into a fresh prefix, builds the consumer program
# against it and runs it. MODE=cmake uses find_package(Kym CONFIG), MODE=pkgconfig
# compiles with the flags that kym.pc gives (and checks that every installed
# header compiles with them).
#
# cmake -DMODE=cmake|pkgconfig -DBUILD_DIR=... -DWORK_DIR=... -DCONSUMER_DIR=...
#       -DCXX_COMPILER=... -DBUILD_TYPE=... -DLIBDIR=... -DINCLUDEDIR=...
#       -DVERSION=... -DSOVERSION=... [-DEXTRA_FLAGS="..."] [-DPKG_CONFIG=...]
#       [-DTOOLCHAIN_FILE=... -DWINDOWS_DEPS=... -DEMULATOR=...]
#       -P RunConsumer.cmake
# With TOOLCHAIN_FILE the package is a Windows one: the consumer is cross-built
# with that toolchain and run, from the installed bin folder, by EMULATOR.
cmake_minimum_required(VERSION 3.25)

foreach(required MODE BUILD_DIR WORK_DIR CONSUMER_DIR CXX_COMPILER LIBDIR INCLUDEDIR VERSION SOVERSION)
  if(NOT DEFINED ${required})
    message(FATAL_ERROR "RunConsumer.cmake needs -D${required}=...")
  endif()
endforeach()

# Runs a command that must succeed; last_output is its standard output.
function(run description)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE errors)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${description} failed (${result}):\n${output}${errors}")
  endif()
  set(last_output "${output}" PARENT_SCOPE)
endfunction()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

set(install_command ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
if(BUILD_TYPE)
  list(APPEND install_command --config ${BUILD_TYPE})
endif()
run("cmake --install" ${install_command})

# What a client expects to find; the base library itself lives inside libkym.
if(TOOLCHAIN_FILE)
  set(expected bin/libkym.dll ${LIBDIR}/libkym.dll.a bin/kym.exe
    bin/libstdc++-6.dll bin/libgcc_s_seh-1.dll bin/libwinpthread-1.dll)
else()
  set(expected ${LIBDIR}/libkym.so ${LIBDIR}/libkym.so.${SOVERSION} ${LIBDIR}/libkym.so.${VERSION})
endif()
list(APPEND expected
  ${LIBDIR}/cmake/Kym/KymConfig.cmake
  ${LIBDIR}/cmake/Kym/KymConfigVersion.cmake
  ${LIBDIR}/cmake/Kym/KymTargets.cmake
  ${LIBDIR}/pkgconfig/kym.pc
  ${INCLUDEDIR}/kym/KymExport.h
  ${INCLUDEDIR}/base/Environment.h
  ${INCLUDEDIR}/base/PropertyList.h
  ${INCLUDEDIR}/base/log/Logger.h
  ${INCLUDEDIR}/base/range/iterator_range.h)
foreach(file ${expected})
  if(NOT EXISTS ${prefix}/${file})
    message(FATAL_ERROR "The installation lacks ${file} (prefix ${prefix}).")
  endif()
endforeach()
file(GLOB_RECURSE static_libraries ${prefix}/*.a)
list(FILTER static_libraries EXCLUDE REGEX "\\.dll\\.a$")  # a DLL's import library
if(static_libraries)
  message(FATAL_ERROR "The installation holds static libraries: ${static_libraries}")
endif()

# The installed command finds the installed library by its own run path.
if(MODE STREQUAL "cmake" AND EXISTS ${prefix}/bin/kym)
  run("Running the installed kym command" ${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH ${prefix}/bin/kym --help)
elseif(MODE STREQUAL "cmake" AND TOOLCHAIN_FILE)
  run("Running the installed kym command" ${EMULATOR} ${prefix}/bin/kym.exe --help)
endif()

set(warnings -Wall -Wextra -Werror)
separate_arguments(extra_flags UNIX_COMMAND "${EXTRA_FLAGS}")

set(cross_arguments "")
if(TOOLCHAIN_FILE)
  # The toolchain confines package searches to its own roots: name the package's folder.
  set(cross_arguments -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN_FILE} -DKYM_WINDOWS_DEPS=${WINDOWS_DEPS}
    -DKym_DIR=${prefix}/${LIBDIR}/cmake/Kym)
endif()

if(MODE STREQUAL "cmake")
  list(JOIN warnings " " warning_text)
  run("Configuring the consumer"
    ${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/build ${cross_arguments}
    -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_CXX_COMPILER=${CXX_COMPILER}
    -DCMAKE_BUILD_TYPE=${BUILD_TYPE}
    "-DCMAKE_CXX_FLAGS=${warning_text} ${EXTRA_FLAGS}"
    "-DCMAKE_EXE_LINKER_FLAGS=${EXTRA_FLAGS}")
  run("Building the consumer" ${CMAKE_COMMAND} --build ${WORK_DIR}/build)
  set(program ${WORK_DIR}/build/consumer)
elseif(MODE STREQUAL "pkgconfig")
  if(NOT PKG_CONFIG)
    message(FATAL_ERROR "RunConsumer.cmake needs -DPKG_CONFIG=... in pkgconfig mode")
  endif()
  set(ENV{PKG_CONFIG_PATH} ${prefix}/${LIBDIR}/pkgconfig)
  run("pkg-config --modversion kym" ${PKG_CONFIG} --modversion kym)
  string(STRIP "${last_output}" found_version)
  if(NOT found_version STREQUAL VERSION)
    message(FATAL_ERROR "kym.pc gives version \"${found_version}\", the project is ${VERSION}.")
  endif()
  run("pkg-config --cflags --libs kym" ${PKG_CONFIG} --cflags --libs kym)
  separate_arguments(package_flags UNIX_COMMAND "${last_output}")
  run("pkg-config --cflags kym" ${PKG_CONFIG} --cflags kym)
  separate_arguments(compile_flags UNIX_COMMAND "${last_output}")

  # Every installed header compiles with only the installed tree and Boost.
  file(GLOB_RECURSE headers RELATIVE ${prefix}/${INCLUDEDIR} ${prefix}/${INCLUDEDIR}/*.h)
  list(SORT headers)
  set(all_headers "")
  foreach(header ${headers})
    string(APPEND all_headers "#include \"${header}\"\n")
  endforeach()
  file(WRITE ${WORK_DIR}/all_headers.cpp "${all_headers}")
  run("Compiling every installed header"
    ${CXX_COMPILER} -std=c++17 ${warnings} ${compile_flags} -fsyntax-only ${WORK_DIR}/all_headers.cpp)
  set(program ${WORK_DIR}/consumer)
  set(run_path -Wl,-rpath,${prefix}/${LIBDIR})
  if(TOOLCHAIN_FILE)
    set(program ${program}.exe)
    set(run_path "")
  endif()
  run("Compiling the consumer with the pkg-config flags"
    ${CXX_COMPILER} -std=c++17 ${warnings} ${extra_flags} ${CONSUMER_DIR}/main.cpp -o ${program}
    ${package_flags} ${run_path})
else()
  message(FATAL_ERROR "MODE is cmake or pkgconfig, not \"${MODE}\".")
endif()

if(TOOLCHAIN_FILE)
  # Windows finds the DLLs beside the program, where an installed program stands.
  if(EXISTS ${program}.exe)
    set(program ${program}.exe)
  endif()
  get_filename_component(name ${program} NAME)
  file(COPY ${program} DESTINATION ${prefix}/bin)
  run("Running the consumer" ${EMULATOR} ${prefix}/bin/${name})
  string(REPLACE "\r\n" "\n" last_output "${last_output}")
else()
  run("Running the consumer" ${program})
endif()
if(NOT last_output STREQUAL "consumer: ok\n")
  message(FATAL_ERROR "The consumer printed:\n${last_output}")
endif()
message(STATUS "${MODE} consumer built against ${prefix} and ran.")
