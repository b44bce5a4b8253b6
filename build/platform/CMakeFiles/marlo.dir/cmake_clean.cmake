file(REMOVE_RECURSE
  "CMakeFiles/marlo.dir/marlo.cc.o"
  "CMakeFiles/marlo.dir/marlo.cc.o.d"
  "libmarlo.pdb"
  "libmarlo.so"
  "libmarlo.so.0"
  "libmarlo.so.0.0.0"
)

# Per-language clean rules from dependency scanning.
foreach(lang CXX)
  include(CMakeFiles/marlo.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
