#  The fuzz targets of the pooled allocator and of its parts.

addrpubd_fuzz_target(allocator RUNS 1200 SOURCES allocator_fuzz.cpp LIBS olklib3)
addrpubd_fuzz_target(size_class RUNS 1200 SOURCES size_class_fuzz.cpp LIBS olklib3)
addrpubd_fuzz_target(object_heap RUNS 2000 SOURCES object_heap_fuzz.cpp LIBS olklib3)
