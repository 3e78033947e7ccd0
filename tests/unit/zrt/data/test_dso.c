/* Loaded by the dynamic-loading tests. */
__attribute__((visibility("default"))) int zrt_test_answer(int x)
{
    return x * 2 + 1;
}
