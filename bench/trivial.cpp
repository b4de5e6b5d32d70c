// The yardstick of pass_bench: a C++ program that does nothing, linked as
// vx-hwcheck and bench_pass are (the check's libraries, the assertion entry
// points, the D-Bus dispatcher's owner), so that starting it costs what
// starting the check costs before its first step.
int main()
{
    return 0;
}
