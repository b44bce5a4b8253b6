file(REMOVE_RECURSE
  "CMakeFiles/kova-api.dir/kova.cc.o"
  "CMakeFiles/kova-api.dir/kova.cc.o.d"
  "CMakeFiles/kova-api.dir/kova_app.cc.o"
  "CMakeFiles/kova-api.dir/kova_app.cc.o.d"
  "CMakeFiles/kova-api.dir/kova_internal.cc.o"
  "CMakeFiles/kova-api.dir/kova_internal.cc.o.d"
  "CMakeFiles/kova-api.dir/kova_policy.cc.o"
  "CMakeFiles/kova-api.dir/kova_policy.cc.o.d"
  "CMakeFiles/kova-api.dir/kova_private.cc.o"
  "CMakeFiles/kova-api.dir/kova_private.cc.o.d"
  "CMakeFiles/kova-api.dir/kova_private_player.cc.o"
  "CMakeFiles/kova-api.dir/kova_private_player.cc.o.d"
  "CMakeFiles/kova-api.dir/kova_zone.cc.o"
  "CMakeFiles/kova-api.dir/kova_zone.cc.o.d"
  "libkova-api.pdb"
  "libkova-api.so"
  "libkova-api.so.0"
  "libkova-api.so.0.1.0"
)

# Per-language clean rules from dependency scanning.
foreach(lang CXX)
  include(CMakeFiles/kova-api.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
