# The device: 32-bit ARM, hard float, Debian's cross-compiler. Libraries other than the C library come from
# the sysroot that script/bootstrap makes; programs run here under qemu's user emulation.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

set(device_sysroot ${CMAKE_CURRENT_LIST_DIR}/../build/arm-sysroot)
cmake_path(NORMAL_PATH device_sysroot)
set(CMAKE_FIND_ROOT_PATH ${device_sysroot} /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-arm-static;-L;${device_sysroot})

# A call stack is walked along APCS frames: every function stores its caller's frame pointer, stack pointer
# and return address in the three words below fp, and there are no tail calls. 64-bit times keep the device
# working beyond 2038.
set(CMAKE_CXX_FLAGS_INIT "-marm -mapcs-frame -fno-omit-frame-pointer -fno-optimize-sibling-calls \
-D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64 -isystem ${device_sysroot}/usr/include")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-L${device_sysroot}/usr/lib/arm-linux-gnueabihf")

# With 64-bit times and offsets, the C library's headers rename these calls.
foreach(call creat fallocate fopen ftruncate getrlimit lockf lseek mkstemp mmap open openat pread pwrite setrlimit
             statfs truncate)
    set(linked_as_${call} ${call}64)
endforeach()
foreach(call adjtime clock_gettime clock_settime getitimer getrusage getsockopt gettimeofday mktime nanosleep ppoll
             recvmsg select sendmsg setitimer setsockopt settimeofday time timerfd_settime utimensat utimes)
    set(linked_as_${call} __${call}64)
endforeach()
foreach(call fstat fstatat lstat stat)
    set(linked_as_${call} __${call}64_time64)
endforeach()
foreach(call fcntl ioctl wait3 wait4)
    set(linked_as_${call} __${call}_time64)
endforeach()
