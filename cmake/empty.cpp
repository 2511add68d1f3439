// Placeholder so that an empty layer still forms a library.
