brix_test_folder(ui LIBS brix_ui)
