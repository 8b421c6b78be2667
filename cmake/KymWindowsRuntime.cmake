# The Windows package's extras. The mingw-w64 C++ runtime DLLs that libkym.dll and the programs linking it
# need: copied beside them in the build tree and installed with them, so that
# a Windows machine with nothing else installed runs them.
set(KYM_WINDOWS_RUNTIME_DLLS "")
foreach(dll libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${dll}
    OUTPUT_VARIABLE location OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT IS_ABSOLUTE "${location}" OR NOT EXISTS "${location}")
    message(FATAL_ERROR "The compiler ${CMAKE_CXX_COMPILER} does not know where ${dll} is.")
  endif()
  list(APPEND KYM_WINDOWS_RUNTIME_DLLS "${location}")
endforeach()
file(COPY ${KYM_WINDOWS_RUNTIME_DLLS} DESTINATION "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}")
install(FILES ${KYM_WINDOWS_RUNTIME_DLLS} DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Runtime)

# What a workstation's administrator reads first in the unpacked package.
install(FILES ${CMAKE_CURRENT_LIST_DIR}/windows-package-README.txt DESTINATION . RENAME README.txt COMPONENT Runtime)
