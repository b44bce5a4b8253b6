platform/CMakeFiles/brask.dir/brask.cc.o: /work/main/platform/brask.cc \
 /usr/include/stdc-predef.h /work/main/platform/include/brask.h
