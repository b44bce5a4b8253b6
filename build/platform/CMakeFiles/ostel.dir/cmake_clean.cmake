file(REMOVE_RECURSE
  "CMakeFiles/ostel.dir/ostel.cc.o"
  "CMakeFiles/ostel.dir/ostel.cc.o.d"
  "libostel.pdb"
  "libostel.so"
  "libostel.so.1"
  "libostel.so.1.0.0"
)

# Per-language clean rules from dependency scanning.
foreach(lang CXX)
  include(CMakeFiles/ostel.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
