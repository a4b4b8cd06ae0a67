brix_test_folder(logger LIBS brix_support)
