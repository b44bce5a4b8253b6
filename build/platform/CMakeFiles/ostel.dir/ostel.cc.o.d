platform/CMakeFiles/ostel.dir/ostel.cc.o: /work/main/platform/ostel.cc \
 /usr/include/stdc-predef.h /work/main/platform/include/ostel.h \
 /usr/lib/gcc/x86_64-linux-gnu/12/include/stdbool.h
