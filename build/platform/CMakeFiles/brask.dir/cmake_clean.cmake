file(REMOVE_RECURSE
  "CMakeFiles/brask.dir/brask.cc.o"
  "CMakeFiles/brask.dir/brask.cc.o.d"
  "libbrask.pdb"
  "libbrask.so"
  "libbrask.so.1"
  "libbrask.so.1.0.0"
)

# Per-language clean rules from dependency scanning.
foreach(lang CXX)
  include(CMakeFiles/brask.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
