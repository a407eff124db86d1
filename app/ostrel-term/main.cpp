// ostrel-term: runs a program inside a headless terminal and prints the final screen.
int main() {
    return 0;
}
