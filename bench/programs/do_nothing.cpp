// What starting and ending a process costs.
int main() {}
