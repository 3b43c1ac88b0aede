// A shared library without Qt plugin metadata.
extern "C" int kuv_not_a_plugin()
{
    return 42;
}
