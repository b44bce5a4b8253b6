# cmake -DINPUT=file.xml -DOUTPUT=header.h -P embed_xml.cmake
file(READ "${INPUT}" content)
get_filename_component(name "${INPUT}" NAME)
file(WRITE "${OUTPUT}.tmp"
  "// Generated from ${name}; do not edit.\n"
  "#pragma once\n"
  "namespace kova_tools {\n"
  "inline constexpr char kIntrospectionXml[] = R\"kovaxml(${content})kovaxml\";\n"
  "}\n")
file(RENAME "${OUTPUT}.tmp" "${OUTPUT}")
