# The calls that fault.cpp wraps, in its order.
set(ttyline_fault_calls
    socket setsockopt bind listen connect accept4 recv read write open close
    shutdown fcntl ioctl stat truncate ftruncate rename mkdir unlink symlink
    fork socketpair posix_openpt grantpt unlockpt ptsname_r tcgetattr tcsetattr
    dup2 dup3 setsid prctl execvp waitpid kill select poll malloc calloc strdup
    setenv getsockname getpeername pthread_mutexattr_init
    pthread_mutexattr_settype pthread_mutex_init pthread_rwlockattr_init
    pthread_rwlock_init pthread_sigmask sigfillset sigaction access usleep
    clock_gettime getppid faccessat fstat chdir chmod epoll_create1
    epoll_ctl epoll_wait eventfd fchmod fchown getcwd getgrnam getpwnam getpwuid
    getrandom getsockopt initgroups inotify_add_watch inotify_init1 lstat opendir
    pipe2 pthread_create putenv realloc realpath recvmsg send sendmsg sendto
    setgid setuid signalfd syscall waitid)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  # Calls with wide times and offsets go by names of their own, see fault.cpp.
  list(TRANSFORM ttyline_fault_calls
       REPLACE "^(open|truncate|ftruncate)$" "\\164")
  list(TRANSFORM ttyline_fault_calls
       REPLACE "^(select|[gs]etsockopt|recvmsg|sendmsg)$" "__\\164")
  list(TRANSFORM ttyline_fault_calls
       REPLACE "^(fcntl|ioctl|prctl)$" "__\\1_time64")
  list(TRANSFORM ttyline_fault_calls REPLACE "^([fl]?stat)$" "__\\164_time64")
  list(TRANSFORM ttyline_fault_calls REPLACE "^clock_gettime$" "__\\164")
endif()
list(TRANSFORM ttyline_fault_calls PREPEND -Wl,--wrap=)
