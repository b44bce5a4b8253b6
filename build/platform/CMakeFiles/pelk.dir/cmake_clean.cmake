file(REMOVE_RECURSE
  "CMakeFiles/pelk.dir/pelk.cc.o"
  "CMakeFiles/pelk.dir/pelk.cc.o.d"
  "libpelk.pdb"
  "libpelk.so"
)

# Per-language clean rules from dependency scanning.
foreach(lang CXX)
  include(CMakeFiles/pelk.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
