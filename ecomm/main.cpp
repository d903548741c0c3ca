// kelvoraecommd: the external-communication daemon.
int main() { return 0; }
