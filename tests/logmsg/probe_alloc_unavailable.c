/* Sanitizer builds keep their own allocator: failing allocations on demand is
 * not available there. */
int probe_fail_line_alloc(void) {
    return 0;
}
