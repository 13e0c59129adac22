// ThreadSanitizer sees only instrumented code. Debian's libzmq hands messages between its
// threads and ours through its own lock-free queues, and libstdc++ counts references to a
// thrown exception (std::exception_ptr, carried by futures) inside its compiled library: TSan
// sees neither synchronisation and reports the bytes on both sides as races. Our own code stays
// fully checked.
#if defined(__SANITIZE_THREAD__)
extern "C" const char* __tsan_default_suppressions() {
  return "race:libzmq.so\n"
         "race:std::__exception_ptr::exception_ptr::_M_release\n";
}
#endif
