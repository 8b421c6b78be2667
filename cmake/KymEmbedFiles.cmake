# Writes OUTPUT, a C++ source that holds each file of FILES (in DIRECTORY) as
# a string: the page of kym serve is part of the program, which needs
# nothing beside it. Run with cmake -P at build time.
string(REPLACE "," ";" FILES "${FILES}")
set(content "// Generated from tools/page by cmake/KymEmbedFiles.cmake; edit those files instead.\n")
string(APPEND content "#include \"PageFiles.h\"\n\nnamespace KymTool {\n\nconst std::vector<PageFile>& pageFiles() {\n")
string(APPEND content "    static const std::vector<PageFile> files = {\n")
foreach(name ${FILES})
  file(READ "${DIRECTORY}/${name}" text)
  if(text MATCHES "\\)KYMFILE\"")
    message(FATAL_ERROR "${name} holds the delimiter )KYMFILE\"")
  endif()
  string(APPEND content "        {\"${name}\", R\"KYMFILE(${text})KYMFILE\"},\n")
endforeach()
string(APPEND content "    };\n    return files;\n}\n\n} // namespace KymTool\n")
file(WRITE "${OUTPUT}.new" "${content}")
file(COPY_FILE "${OUTPUT}.new" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.new")
