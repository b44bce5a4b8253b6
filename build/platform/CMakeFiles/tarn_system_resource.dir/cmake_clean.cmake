file(REMOVE_RECURSE
  "CMakeFiles/tarn_system_resource.dir/tarn_system_resource.cc.o"
  "CMakeFiles/tarn_system_resource.dir/tarn_system_resource.cc.o.d"
  "libtarn-system-resource.pdb"
  "libtarn-system-resource.so"
  "libtarn-system-resource.so.1"
  "libtarn-system-resource.so.1.0.0"
)

# Per-language clean rules from dependency scanning.
foreach(lang CXX)
  include(CMakeFiles/tarn_system_resource.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
