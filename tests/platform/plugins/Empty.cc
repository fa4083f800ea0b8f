// A library like any other.

extern "C" int testEmptyAnswer();
int testEmptyAnswer() { return 0; }
