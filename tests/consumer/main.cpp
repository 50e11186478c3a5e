int first_call();

int main() { return first_call(); }
