"""Device numbers: 0 is the processor, 1000 and up are accelerators."""
DEV_CPU = 0
DEV_GPU_0 = 1000
DEV_GPU_1 = 1001
DEV_GPU_2 = 1002
DEV_GPU_3 = 1003
DEV_GPU_4 = 1004
DEV_GPU_5 = 1005
DEV_GPU_6 = 1006
DEV_GPU_7 = 1007
