// Anchor translation unit of the MC shared library; the code comes from mc_core.
