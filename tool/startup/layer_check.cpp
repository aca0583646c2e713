// The whole of one of the tool's libraries, linked with nothing but what it declares it uses:
// a reference to a library above it, or to one it does not declare, fails this link.
int main() {
    return 0;
}
