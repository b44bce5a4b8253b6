# Empty dependencies file for ostel.
# This may be replaced when dependencies are built.
