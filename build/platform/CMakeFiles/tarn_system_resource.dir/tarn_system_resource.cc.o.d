platform/CMakeFiles/tarn_system_resource.dir/tarn_system_resource.cc.o: \
 /work/main/platform/tarn_system_resource.cc /usr/include/stdc-predef.h \
 /work/main/platform/include/tarn_system_resource.h
