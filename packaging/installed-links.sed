# A link out of the folder of documents becomes its text.
s|\[([^]]*)\]\(\.\./[^)]*\)|\1|g
