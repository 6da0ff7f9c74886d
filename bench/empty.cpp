// A program that does nothing, linked with the daemon's libraries: what loading them costs.
int main() {}
